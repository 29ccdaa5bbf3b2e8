#include "hosted/ke/user_space.h"

#include "hosted/ke/bug_check.h"
#include "hosted/ke/user_access.h"

#include <atomic>
#include <cerrno>
#include <cstring>
#include <map>
#include <mutex>
#include <sys/mman.h>

namespace hosted
{
namespace
{
constexpr SIZE_T SpacePages = 1u << 20; // 4 GiB of address space
constexpr ULONG_PTR LowestBytes = 0x10000;

// What a page is; in `live`.
constexpr UCHAR Dead = 0;
constexpr UCHAR Live = 1;
constexpr UCHAR Guarded = 2;

// Asked in a signal handler: plain atomics only.
std::atomic<ULONG_PTR> spaceBase{0};
std::atomic<UCHAR> live[SpacePages];

struct Space
{
    std::mutex Lock;
    std::map<SIZE_T, SIZE_T> Free; // first page -> pages
    SIZE_T Cursor = 0;             // reuse comes late, so that stale addresses stay dead for long

    Space()
    {
        void* base =
            mmap(nullptr, SpacePages * PAGE_SIZE, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
        if (base == MAP_FAILED)
        {
            BugCheck("user-space", "no address space: %s", strerror(errno));
        }
        Free[0] = SpacePages;
        spaceBase.store(reinterpret_cast<ULONG_PTR>(base), std::memory_order_release);
    }
};

Space& UserSpace()
{
    static Space& space = *new Space;
    return space;
}

std::map<SIZE_T, SIZE_T>::iterator FindFree(Space& space, SIZE_T pages)
{
    for (auto it = space.Free.lower_bound(space.Cursor); it != space.Free.end(); ++it)
    {
        if (it->second >= pages)
        {
            return it;
        }
    }
    for (auto it = space.Free.begin(); it != space.Free.end(); ++it)
    {
        if (it->second >= pages)
        {
            return it;
        }
    }
    BugCheck("user-space", "%llu pages are not free in one piece", pages);
}

SIZE_T TakePages(Space& space, SIZE_T pages)
{
    std::lock_guard lock(space.Lock);
    auto found = FindFree(space, pages);
    auto [first, count] = *found;
    space.Free.erase(found);
    if (count > pages)
    {
        space.Free[first + pages] = count - pages;
    }
    space.Cursor = first + pages;
    return first;
}

void GivePages(Space& space, SIZE_T first, SIZE_T pages)
{
    std::lock_guard lock(space.Lock);
    auto next = space.Free.lower_bound(first);
    if (next != space.Free.end() && next->first == first + pages)
    {
        pages += next->second;
        next = space.Free.erase(next);
    }
    if (next != space.Free.begin())
    {
        auto before = std::prev(next);
        if (before->first + before->second == first)
        {
            before->second += pages;
            return;
        }
    }
    space.Free[first] = pages;
}

void MarkPages(SIZE_T first, SIZE_T pages, UCHAR value)
{
    for (SIZE_T i = 0; i < pages; ++i)
    {
        live[first + i].store(value, std::memory_order_release);
    }
}

SIZE_T PageOf(const UCHAR* address)
{
    return (reinterpret_cast<ULONG_PTR>(address) - spaceBase.load(std::memory_order_acquire)) / PAGE_SIZE;
}
}

bool IsUserAddress(const volatile void* address)
{
    ULONG_PTR value = reinterpret_cast<ULONG_PTR>(address);
    if (value < LowestBytes)
    {
        return true;
    }
    ULONG_PTR base = spaceBase.load(std::memory_order_acquire);
    if (base == 0 || value < base || value >= base + SpacePages * PAGE_SIZE)
    {
        return false;
    }
    return live[(value - base) / PAGE_SIZE].load(std::memory_order_acquire) != Dead;
}

UCHAR* ReserveUserPages(SIZE_T bytes)
{
    Space& space = UserSpace();
    SIZE_T pages = bytes / PAGE_SIZE + 1;
    SIZE_T first = TakePages(space, pages);
    UCHAR* base = reinterpret_cast<UCHAR*>(spaceBase.load(std::memory_order_acquire)) + first * PAGE_SIZE;
    ProtectUserPages(base, bytes, true, true);
    MarkPages(first, pages, Live);
    return base;
}

void ReleaseUserPages(UCHAR* base, SIZE_T bytes)
{
    SIZE_T pages = bytes / PAGE_SIZE + 1;
    MarkPages(PageOf(base), pages, Dead);
    // A fresh mapping over the old one gives the memory back and makes the next use of these pages zero-filled.
    void* mapped =
        mmap(base, pages * PAGE_SIZE, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE | MAP_FIXED, -1, 0);
    if (mapped != base)
    {
        BugCheck("user-space", "pages cannot be given back: %s", strerror(errno));
    }
    GivePages(UserSpace(), PageOf(base), pages);
}

void ProtectUserPages(UCHAR* base, SIZE_T bytes, bool readable, bool writable)
{
    // The processor has no pages that can be written but not read.
    int protection = (readable || writable ? PROT_READ : PROT_NONE) | (writable ? PROT_WRITE : PROT_NONE);
    if (mprotect(base, bytes, protection) != 0)
    {
        BugCheck("user-space", "protection cannot be changed: %s", strerror(errno));
    }
    MarkPages(PageOf(base), bytes / PAGE_SIZE, Live);
}

void GuardUserPages(UCHAR* base, SIZE_T bytes)
{
    ProtectUserPages(base, bytes, false, false);
    MarkPages(PageOf(base), bytes / PAGE_SIZE, Guarded);
}

bool TakeGuard(const volatile void* address)
{
    const ULONG_PTR value = reinterpret_cast<ULONG_PTR>(address);
    if (value < LowestBytes || !IsUserAddress(address))
    {
        return false;
    }
    const ULONG_PTR base = spaceBase.load(std::memory_order_acquire);
    UCHAR expected = Guarded;
    if (!live[(value - base) / PAGE_SIZE].compare_exchange_strong(expected, Live))
    {
        return false;
    }
    mprotect(reinterpret_cast<void*>(ALIGN_DOWN_BY(value, PAGE_SIZE)), PAGE_SIZE, PROT_READ | PROT_WRITE);
    return true;
}
}
