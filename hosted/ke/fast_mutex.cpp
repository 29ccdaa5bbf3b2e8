#include "hosted/ke/fast_mutex.h"

#include "hosted/ke/bug_check.h"
#include "hosted/ke/event.h"
#include "hosted/ke/irql.h"

#include <atomic>
#include <mutex>
#include <set>

#if defined(__has_feature)
#if __has_feature(thread_sanitizer)
#include <sanitizer/tsan_interface.h>
#define TSAN_NOTE(Call) Call
#endif
#endif
#ifndef TSAN_NOTE
#define TSAN_NOTE(Call) ((void)0)
#endif

namespace hosted
{
namespace
{
// Values of Count. The first is the platform's; a holder sees one of the others.
constexpr LONG Free = FM_LOCK_BIT;
constexpr LONG Taken = 0;
constexpr LONG TakenAndWaitedFor = -1;

constexpr int MostHeld = 2;

struct HeldList
{
    PFAST_MUTEX Mutexes[MostHeld];
    int Count;
};
constinit thread_local HeldList held = {};

// Its address names the thread; its end checks the balance.
struct ThreadMark
{
    ~ThreadMark()
    {
        if (held.Count != 0)
        {
            BugCheck(
                "fast-mutex-thread-end", "a thread ends holding fast mutex %p", static_cast<void*>(held.Mutexes[0]));
        }
    }
};
thread_local ThreadMark threadMark;

struct InnermostSet
{
    std::mutex Lock;
    std::set<PFAST_MUTEX> Mutexes;
    bool Learning = false;
};

InnermostSet& Innermost()
{
    static InnermostSet& set = *new InnermostSet;
    return set;
}

void RequireMutex(PFAST_MUTEX mutex, const char* routine)
{
    const DISPATCHER_HEADER& header = mutex->Event.Header;
    LONG count = std::atomic_ref(mutex->Count).load(std::memory_order_relaxed);
    bool made = header.Type == SynchronizationEvent && header.Size == sizeof(KEVENT) / sizeof(ULONG) &&
                header.WaitListHead.Flink == &mutex->Event.Header.WaitListHead && count <= Free &&
                count >= TakenAndWaitedFor;
    if (!made)
    {
        BugCheck("fast-mutex-not-initialised", "%s: no fast mutex stands at %p", routine, static_cast<void*>(mutex));
    }
}

void RequireOrder(PFAST_MUTEX mutex)
{
    if (held.Count == 0)
    {
        return;
    }
    InnermostSet& innermost = Innermost();
    std::lock_guard lock(innermost.Lock);
    if (innermost.Learning && held.Count == 1 && innermost.Mutexes.empty())
    {
        innermost.Mutexes.insert(mutex);
    }
    bool allowed = held.Count == 1 && innermost.Mutexes.contains(mutex) && !innermost.Mutexes.contains(held.Mutexes[0]);
    if (!allowed)
    {
        BugCheck("fast-mutex-order", "fast mutex %p is taken inside %p", static_cast<void*>(mutex),
            static_cast<void*>(held.Mutexes[held.Count - 1]));
    }
}

void Lock(PFAST_MUTEX mutex)
{
    TSAN_NOTE(__tsan_mutex_pre_lock(mutex, 0));
    std::atomic_ref count(mutex->Count);
    LONG expected = Free;
    if (!count.compare_exchange_strong(expected, Taken, std::memory_order_acquire))
    {
        std::atomic_ref(mutex->Contention).fetch_add(1, std::memory_order_relaxed);
        while (count.exchange(TakenAndWaitedFor, std::memory_order_acquire) != Free)
        {
            count.wait(TakenAndWaitedFor, std::memory_order_relaxed);
        }
    }
    TSAN_NOTE(__tsan_mutex_post_lock(mutex, 0, 0));
}

void Unlock(PFAST_MUTEX mutex)
{
    TSAN_NOTE(__tsan_mutex_pre_unlock(mutex, 0));
    std::atomic_ref count(mutex->Count);
    if (count.exchange(Free, std::memory_order_release) == TakenAndWaitedFor)
    {
        count.notify_one();
    }
    TSAN_NOTE(__tsan_mutex_post_unlock(mutex, 0));
}

void ForgetHeld(PFAST_MUTEX mutex)
{
    if (held.Mutexes[held.Count - 1] != mutex)
    {
        held.Mutexes[0] = held.Mutexes[1];
    }
    --held.Count;
}
}

int FastMutexesHeld()
{
    return held.Count;
}

void AllowInnermost(PFAST_MUTEX mutex)
{
    std::lock_guard lock(Innermost().Lock);
    Innermost().Mutexes.insert(mutex);
}

void LearnInnermost()
{
    std::lock_guard lock(Innermost().Lock);
    Innermost().Learning = true;
}

void ResetInnermost()
{
    std::lock_guard lock(Innermost().Lock);
    Innermost().Mutexes.clear();
    Innermost().Learning = false;
}

bool HoldsFastMutexIn(const void* begin, SIZE_T bytes)
{
    ULONG_PTR first = reinterpret_cast<ULONG_PTR>(begin);
    for (int i = 0; i < held.Count; ++i)
    {
        ULONG_PTR address = reinterpret_cast<ULONG_PTR>(held.Mutexes[i]);
        if (address >= first && address - first < bytes)
        {
            return true;
        }
    }
    return false;
}
}

extern "C" void FASTCALL ExAcquireFastMutex(PFAST_MUTEX FastMutex)
{
    using namespace hosted;
    RequireIrql(APC_LEVEL, "ExAcquireFastMutex");
    RequireMutex(FastMutex, "ExAcquireFastMutex");
    std::atomic_ref owner(FastMutex->Owner);
    if (owner.load(std::memory_order_relaxed) == &threadMark)
    {
        BugCheck("fast-mutex-recursive", "fast mutex %p is taken by its holder", static_cast<void*>(FastMutex));
    }
    RequireOrder(FastMutex);
    KIRQL previous = CurrentIrql();
    SetIrql(APC_LEVEL);
    Lock(FastMutex);
    owner.store(&threadMark, std::memory_order_relaxed);
    FastMutex->OldIrql = previous;
    held.Mutexes[held.Count++] = FastMutex;
}

extern "C" void FASTCALL ExReleaseFastMutex(PFAST_MUTEX FastMutex)
{
    using namespace hosted;
    RequireMutex(FastMutex, "ExReleaseFastMutex");
    std::atomic_ref owner(FastMutex->Owner);
    if (owner.load(std::memory_order_relaxed) != &threadMark)
    {
        BugCheck("fast-mutex-not-owned", "fast mutex %p is released by a thread that does not hold it",
            static_cast<void*>(FastMutex));
    }
    if (CurrentIrql() != APC_LEVEL)
    {
        BugCheck("fast-mutex-irql", "fast mutex %p is released at %u", static_cast<void*>(FastMutex), CurrentIrql());
    }
    KIRQL previous = static_cast<KIRQL>(FastMutex->OldIrql);
    owner.store(nullptr, std::memory_order_relaxed);
    ForgetHeld(FastMutex);
    Unlock(FastMutex);
    SetIrql(previous);
}
