// Inside the cache manager: the pages of one stream, and what all streams share.
#pragma once

#include "hosted/cc/cache.h"
#include "common/mutex.h"

#include <atomic>
#include <bit>
#include <condition_variable>
#include <cstdint>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

namespace hosted
{
constexpr ULONG ViewPages = CacheViewBytes / PAGE_SIZE;
static_assert(ViewPages == 64, "the page flags of a view are the bits of one word");

// The pages of a view from `first` to `last`, both included.
constexpr uint64_t PageMask(ULONG first, ULONG last)
{
    return (~0ull >> (63 - (last - first))) << first;
}

// One view. Guarded by its map's lock, but for Position, which belongs to the list of all views. Who shares that lock
// may read the bytes of valid pages, and fills others under Filling.
struct CacheView
{
    CacheMap* Owner = nullptr;
    LONGLONG Index = 0; // file offset / CacheViewBytes
    UCHAR* Memory = nullptr;
    std::mutex Filling; // guards Valid among those who share the map's lock
    uint64_t Valid = 0;
    uint64_t Dirty = 0;
    std::list<CacheView*>::iterator Position;

    LONGLONG Start() const { return Index * CacheViewBytes; }
};

class CacheMap : public std::enable_shared_from_this<CacheMap>
{
public:
    explicit CacheMap(CachedStream& stream) : Stream(stream) {}

    CachedStream& Stream;
    // Held during this stream's paging I/O: shared by those who only read, so that pages are brought in side by side. A
    // thread holds at most one map's lock.
    common::FairSharedMutex Lock;
    // All below guarded by Lock; the count of dirty pages may be read without.
    std::map<LONGLONG, std::unique_ptr<CacheView>> Views;
    std::mutex Making; // guards Views among those who share the lock
    std::atomic<ULONG> DirtyPages = 0;
    std::atomic<LONGLONG> NextSequential = 0; // where a reader that goes on from the last read would go on
    bool Deleted = false;

    // Who shrank the stream, with the operation still on its way up; the count of them may be read without the lock.
    std::vector<std::thread::id> Unsettled;
    std::atomic<size_t> UnsettledCount = 0;
    std::condition_variable_any BecameSettled;
};

// What a thread does to a map: its lock for itself alone, and the work that the stream asked for when it became clean.
class CacheMapGuard
{
public:
    explicit CacheMapGuard(CacheMap& map) : map_(map), lock_(map.Lock) {}
    CacheMapGuard(CacheMap& map, std::unique_lock<common::FairSharedMutex>&& lock) : map_(map), lock_(std::move(lock))
    {
    }
    ~CacheMapGuard();
    CacheMapGuard(const CacheMapGuard&) = delete;
    CacheMapGuard& operator=(const CacheMapGuard&) = delete;

    // Lets go of the lock for as long as another thread's change of the size is not known to all.
    void WaitUntilSettled();

private:
    CacheMap& map_;
    std::unique_lock<common::FairSharedMutex> lock_;
    bool wasDirty_ = map_.DirtyPages != 0;
};

// The map's lock is held for everything below, alone where nothing else is said.

// The view of that index, made when it is not there; it becomes the most recently used of all. The lock may be shared.
CacheView& GetView(CacheMap& map, LONGLONG index);
CacheView* FindView(CacheMap& map, LONGLONG index);
// Forgets the view, whose pages must be clean or worthless.
void DropView(CacheMap& map, CacheView& view);
void SetDirty(CacheMap& map, CacheView& view, uint64_t pages);
void ClearDirty(CacheMap& map, CacheView& view, uint64_t pages);

// Reads those of the pages `first` to `last` that are not valid, by paging reads of clustered pages. The lock may be
// shared while the view's Filling is held.
NTSTATUS FillPages(CacheMap& map, CacheView& view, ULONG first, ULONG last);
// Writes the dirty ones among `pages`, by paging writes of clustered pages.
NTSTATUS WritePages(CacheMap& map, CacheView& view, uint64_t pages);

// What all maps share (views.cpp). Leaf locks.
void RegisterMap(const std::shared_ptr<CacheMap>& map);
void UnregisterMap(CacheMap& map);
std::vector<std::shared_ptr<CacheMap>> RegisteredMaps();
// The least recently used view whose map's lock is free and whose pages may leave memory; *lock then holds the map's
// lock. Views that were passed over, and the one found, count as most recently used afterwards.
CacheView* TakeColdestView(ULONG* attempts, std::unique_lock<common::FairSharedMutex>* lock);
}
