// The views of all streams: their memory, their order of use, the bytes they hold.
#include "hosted/cc/cache_map.h"

#include "hosted/ke/bug_check.h"

#include <algorithm>
#include <cstdlib>
#include <unordered_map>

namespace hosted
{
namespace
{
// View memory that was given back and is about to be wanted again: fresh memory costs a fault per page.
constexpr size_t SpareViews = 16;

struct SharedState
{
    std::mutex Lock;
    std::list<CacheView*> Order; // coldest first
    std::unordered_map<CacheMap*, std::shared_ptr<CacheMap>> Maps;
    std::vector<UCHAR*> Spare;
    SIZE_T Bytes = 0;
    SIZE_T Peak = 0;

    ~SharedState()
    {
        for (UCHAR* memory : Spare)
        {
            std::free(memory);
        }
    }
};

SharedState& Shared()
{
    static SharedState state;
    return state;
}

UCHAR* AllocateMemory(SharedState& shared)
{
    if (!shared.Spare.empty())
    {
        UCHAR* memory = shared.Spare.back();
        shared.Spare.pop_back();
        return memory;
    }
    void* memory = std::aligned_alloc(PAGE_SIZE, CacheViewBytes);
    if (memory == nullptr)
    {
        BugCheck("MEMORY_MANAGEMENT", "no memory for a view of the page cache");
    }
    return static_cast<UCHAR*>(memory);
}
}

CacheView* FindView(CacheMap& map, LONGLONG index)
{
    auto found = map.Views.find(index);
    return found == map.Views.end() ? nullptr : found->second.get();
}

CacheView& GetView(CacheMap& map, LONGLONG index)
{
    SharedState& shared = Shared();
    std::lock_guard making(map.Making);
    if (CacheView* view = FindView(map, index))
    {
        std::lock_guard guard(shared.Lock);
        shared.Order.splice(shared.Order.end(), shared.Order, view->Position);
        return *view;
    }
    auto view = std::make_unique<CacheView>();
    view->Owner = &map;
    view->Index = index;
    {
        std::lock_guard guard(shared.Lock);
        view->Memory = AllocateMemory(shared);
        view->Position = shared.Order.insert(shared.Order.end(), view.get());
        shared.Bytes += CacheViewBytes;
        shared.Peak = std::max(shared.Peak, shared.Bytes);
    }
    return *(map.Views[index] = std::move(view));
}

void DropView(CacheMap& map, CacheView& view)
{
    SharedState& shared = Shared();
    ClearDirty(map, view, view.Dirty);
    {
        std::lock_guard guard(shared.Lock);
        shared.Order.erase(view.Position);
        shared.Bytes -= CacheViewBytes;
        if (shared.Spare.size() < SpareViews)
        {
            shared.Spare.push_back(view.Memory);
        }
        else
        {
            std::free(view.Memory);
        }
    }
    map.Views.erase(view.Index);
}

void RegisterMap(const std::shared_ptr<CacheMap>& map)
{
    SharedState& shared = Shared();
    std::lock_guard guard(shared.Lock);
    shared.Maps.emplace(map.get(), map);
}

void UnregisterMap(CacheMap& map)
{
    SharedState& shared = Shared();
    std::shared_ptr<CacheMap> last; // freed after the lock
    std::lock_guard guard(shared.Lock);
    auto found = shared.Maps.find(&map);
    if (found == shared.Maps.end())
    {
        BugCheck("CACHE_MANAGER", "a cache map is deleted that does not exist");
    }
    last = std::move(found->second);
    shared.Maps.erase(found);
}

std::vector<std::shared_ptr<CacheMap>> RegisteredMaps()
{
    SharedState& shared = Shared();
    std::lock_guard guard(shared.Lock);
    std::vector<std::shared_ptr<CacheMap>> maps;
    maps.reserve(shared.Maps.size());
    for (auto& [map, owner] : shared.Maps)
    {
        maps.push_back(owner);
    }
    return maps;
}

CacheView* TakeColdestView(ULONG* attempts, std::unique_lock<common::FairSharedMutex>* lock)
{
    SharedState& shared = Shared();
    std::lock_guard guard(shared.Lock);
    while (*attempts != 0 && !shared.Order.empty())
    {
        --*attempts;
        CacheView* view = shared.Order.front();
        shared.Order.splice(shared.Order.end(), shared.Order, shared.Order.begin());
        // Only tried: the list's lock is below the maps' locks in the order.
        std::unique_lock mapLock(view->Owner->Lock, std::try_to_lock);
        if (mapLock.owns_lock() && !(!view->Owner->Unsettled.empty() && view->Dirty != 0))
        {
            *lock = std::move(mapLock);
            return view;
        }
    }
    return nullptr;
}

SIZE_T CachedBytes()
{
    SharedState& shared = Shared();
    std::lock_guard guard(shared.Lock);
    return shared.Bytes;
}

SIZE_T PeakCachedBytes()
{
    SharedState& shared = Shared();
    std::lock_guard guard(shared.Lock);
    return shared.Peak;
}

void ResetPeakCachedBytes()
{
    SharedState& shared = Shared();
    std::lock_guard guard(shared.Lock);
    shared.Peak = shared.Bytes;
}
}
