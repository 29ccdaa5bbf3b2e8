#include "hosted/ke/event.h"

#include "hosted/ke/bug_check.h"
#include "hosted/ke/irql.h"

#include <sys/eventfd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <utility>
#include <vector>

namespace hosted
{
namespace
{
constexpr UCHAR EventWords = sizeof(KEVENT) / sizeof(ULONG);

// Waiters of events share a few locks: an event has no room of its own for one.
struct Bucket
{
    std::mutex Lock;
    std::condition_variable Changed;
    std::vector<std::pair<const KEVENT*, int>> Observers; // with their descriptors
};

Bucket& BucketOf(const KEVENT* event)
{
    static auto& buckets = *new std::array<Bucket, 64>;
    return buckets[(reinterpret_cast<ULONG_PTR>(event) / sizeof(KEVENT)) % buckets.size()];
}
}

void RequireEvent(const KEVENT* event, const char* routine)
{
    const DISPATCHER_HEADER& header = event->Header;
    bool made = (header.Type == NotificationEvent || header.Type == SynchronizationEvent) &&
                header.Size == EventWords && header.WaitListHead.Flink == &header.WaitListHead &&
                header.WaitListHead.Blink == &header.WaitListHead;
    if (!made)
    {
        BugCheck("event-not-initialised", "%s: no event stands at %p", routine, static_cast<const void*>(event));
    }
}

bool IsSignalled(PKEVENT event)
{
    RequireEvent(event, "IsSignalled");
    std::lock_guard lock(BucketOf(event).Lock);
    return event->Header.SignalState != 0;
}

bool WaitForEvent(PKEVENT event, unsigned timeoutMilliseconds)
{
    RequireEvent(event, "WaitForEvent");
    Bucket& bucket = BucketOf(event);
    std::unique_lock lock(bucket.Lock);
    bool signalled = bucket.Changed.wait_for(
        lock, std::chrono::milliseconds(timeoutMilliseconds), [event] { return event->Header.SignalState != 0; });
    if (signalled && event->Header.Type == SynchronizationEvent)
    {
        event->Header.SignalState = 0;
    }
    return signalled;
}

void ClearEvent(PKEVENT event)
{
    RequireEvent(event, "ClearEvent");
    std::lock_guard lock(BucketOf(event).Lock);
    event->Header.SignalState = 0;
}

EventObserver::EventObserver(PKEVENT event, int descriptor) : event_(event), descriptor_(descriptor)
{
    RequireEvent(event, "EventObserver");
    Bucket& bucket = BucketOf(event);
    std::lock_guard lock(bucket.Lock);
    bucket.Observers.emplace_back(event, descriptor);
}

EventObserver::~EventObserver()
{
    Bucket& bucket = BucketOf(event_);
    std::lock_guard lock(bucket.Lock);
    bucket.Observers.erase(std::ranges::find(bucket.Observers, std::pair<const KEVENT*, int>(event_, descriptor_)));
}
}

extern "C" void NTAPI KeInitializeEvent(PRKEVENT Event, EVENT_TYPE Type, BOOLEAN State)
{
    if (Type != NotificationEvent && Type != SynchronizationEvent)
    {
        hosted::BugCheck("event-type", "KeInitializeEvent was asked for type %d", static_cast<int>(Type));
    }
    std::lock_guard lock(hosted::BucketOf(Event).Lock);
    DISPATCHER_HEADER& header = Event->Header;
    header.Type = static_cast<UCHAR>(Type);
    header.Signalling = 0;
    header.Size = hosted::EventWords;
    header.Inserted = 0;
    header.SignalState = State ? 1 : 0;
    header.WaitListHead.Flink = &header.WaitListHead;
    header.WaitListHead.Blink = &header.WaitListHead;
}

extern "C" LONG NTAPI KeSetEvent(PRKEVENT Event, KPRIORITY Increment, BOOLEAN Wait)
{
    hosted::RequireIrql(DISPATCH_LEVEL, "KeSetEvent");
    hosted::RequireEvent(Event, "KeSetEvent");
    if (Increment < 0)
    {
        hosted::BugCheck("event-increment", "KeSetEvent with the priority increment %d", Increment);
    }
    // With Wait set the caller keeps the dispatcher locked until the wait that has to follow.
    if (Wait)
    {
        hosted::BugCheck("event-wait", "KeSetEvent with Wait set is not modelled");
    }
    hosted::Bucket& bucket = hosted::BucketOf(Event);
    std::lock_guard lock(bucket.Lock);
    LONG previous = Event->Header.SignalState;
    Event->Header.SignalState = 1;
    bucket.Changed.notify_all();
    for (const auto& [observed, descriptor] : bucket.Observers)
    {
        if (observed == Event)
        {
            // Cannot fail but for a counter that is full, which wakes as well.
            eventfd_write(descriptor, 1);
        }
    }
    return previous;
}

extern "C" NTSTATUS NTAPI KeWaitForSingleObject(
    PVOID Object, KWAIT_REASON, KPROCESSOR_MODE WaitMode, BOOLEAN Alertable, PLARGE_INTEGER Timeout)
{
    hosted::RequireIrql(APC_LEVEL, "KeWaitForSingleObject");
    const auto event = static_cast<PKEVENT>(Object);
    hosted::RequireEvent(event, "KeWaitForSingleObject");
    if (WaitMode != KernelMode || Alertable || Timeout != nullptr)
    {
        hosted::BugCheck("NOT_MODELLED", "a wait in user mode, alertable or with a timeout");
    }
    constexpr unsigned AWhile = 1000;
    while (!hosted::WaitForEvent(event, AWhile))
    {
    }
    return STATUS_SUCCESS;
}
