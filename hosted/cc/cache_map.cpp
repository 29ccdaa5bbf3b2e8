// Cache maps: making and deleting them, flushing, purging, changing the size under them, trimming.
#include "hosted/cc/cache_map.h"

#include "hosted/ke/bug_check.h"
#include "hosted/ke/system_model.h"

#include <algorithm>

namespace hosted
{
CacheMapGuard::~CacheMapGuard()
{
    std::function<void()> afterwards;
    if (wasDirty_ && map_.DirtyPages == 0 && !map_.Deleted)
    {
        afterwards = map_.Stream.BecameClean();
    }
    lock_.unlock();
    // From here on the map may be gone.
    if (afterwards)
    {
        afterwards();
    }
}

void CacheMapGuard::WaitUntilSettled()
{
    const auto byOthers = [this]
    {
        return std::ranges::any_of(
            map_.Unsettled, [](std::thread::id who) { return who != std::this_thread::get_id(); });
    };
    map_.BecameSettled.wait(lock_, [&] { return !byOthers(); });
    wasDirty_ = map_.DirtyPages != 0;
}

CacheMap* CreateCacheMap(CachedStream& stream)
{
    auto map = std::make_shared<CacheMap>(stream);
    RegisterMap(map);
    return map.get();
}

void DeleteCacheMap(CacheMap* map)
{
    {
        std::lock_guard guard(map->Lock);
        if (map->DirtyPages != 0)
        {
            BugCheck("CACHE_MANAGER", "a cache map is deleted with %u dirty pages", map->DirtyPages.load());
        }
        map->Deleted = true;
        while (!map->Views.empty())
        {
            DropView(*map, *map->Views.begin()->second);
        }
    }
    UnregisterMap(*map);
}

namespace
{
NTSTATUS DirtyPageLocked(CacheMap& map, LONGLONG offset)
{
    if (offset % PAGE_SIZE == 0 || offset - offset % PAGE_SIZE >= map.Stream.FileSize())
    {
        return STATUS_SUCCESS;
    }
    CacheView& view = GetView(map, offset / CacheViewBytes);
    const ULONG page = static_cast<ULONG>(offset % CacheViewBytes / PAGE_SIZE);
    NTSTATUS status = FillPages(map, view, page, page);
    if (NT_SUCCESS(status))
    {
        SetDirty(map, view, PageMask(page, page));
    }
    return status;
}

// A page that lies wholly past the end of file is known to be zero; nothing is read for it.
void ZeroPageLocked(CacheMap& map, LONGLONG offset)
{
    CacheView& view = GetView(map, offset / CacheViewBytes);
    const ULONG page = static_cast<ULONG>(offset % CacheViewBytes / PAGE_SIZE);
    RtlZeroMemory(view.Memory + page * PAGE_SIZE, PAGE_SIZE);
    view.Valid |= PageMask(page, page);
    SetDirty(map, view, PageMask(page, page));
}

// Zeroes what is cached from `offset` to the end of its page.
void ZeroTailLocked(CacheMap& map, LONGLONG offset)
{
    const ULONG begin = static_cast<ULONG>(offset % CacheViewBytes);
    CacheView* view = FindView(map, offset / CacheViewBytes);
    if (offset % PAGE_SIZE != 0 && view != nullptr && (view->Valid & PageMask(begin / PAGE_SIZE, begin / PAGE_SIZE)))
    {
        RtlZeroMemory(view->Memory + begin, PAGE_SIZE - begin % PAGE_SIZE);
    }
}

void TruncateLocked(CacheMap& map, LONGLONG newSize)
{
    ZeroTailLocked(map, newSize);
    const LONGLONG kept = static_cast<LONGLONG>(ROUND_TO_PAGES(newSize));
    auto each = map.Views.lower_bound(kept / CacheViewBytes);
    if (each != map.Views.end() && each->second->Start() < kept)
    {
        CacheView& view = *each->second;
        const uint64_t gone = PageMask(static_cast<ULONG>((kept - view.Start()) / PAGE_SIZE), ViewPages - 1);
        ClearDirty(map, view, gone);
        view.Valid &= ~gone;
        ++each;
    }
    while (each != map.Views.end())
    {
        CacheView& view = *each->second;
        ++each;
        DropView(map, view);
    }
}

// Calls use(view, pages) for the part of each view within the range; `length` 0: to the end. A status that is no
// success ends the walk. `use` may drop the view.
template <class Use>
NTSTATUS ForViews(CacheMap& map, LONGLONG offset, LONGLONG length, Use&& use)
{
    const LONGLONG end = length == 0 ? INT64_MAX : offset + length;
    for (auto each = map.Views.lower_bound(offset / CacheViewBytes); each != map.Views.end();)
    {
        CacheView& view = *each->second;
        if (view.Start() >= end)
        {
            break;
        }
        ++each;
        const LONGLONG first = std::max<LONGLONG>(offset - view.Start(), 0) / PAGE_SIZE;
        const LONGLONG last = (std::min<LONGLONG>(end - view.Start(), CacheViewBytes) - 1) / PAGE_SIZE;
        NTSTATUS status = use(view, PageMask(static_cast<ULONG>(first), static_cast<ULONG>(last)));
        if (!NT_SUCCESS(status))
        {
            return status;
        }
    }
    return STATUS_SUCCESS;
}

NTSTATUS FlushLocked(CacheMap& map, LONGLONG offset, LONGLONG length)
{
    return ForViews(map, offset, length, [&](CacheView& view, uint64_t pages) { return WritePages(map, view, pages); });
}
}

NTSTATUS CacheDirtyPageAt(CacheMap* map, LONGLONG offset)
{
    CacheMapGuard guard(*map);
    return DirtyPageLocked(*map, offset);
}

void CacheTruncate(CacheMap* map, LONGLONG newSize)
{
    CacheMapGuard guard(*map);
    TruncateLocked(*map, newSize);
}

NTSTATUS CacheResize(CacheMap* map, LONGLONG newSize, bool rewriteEnds, const std::function<NTSTATUS()>& apply)
{
    CacheMapGuard guard(*map);
    const LONGLONG oldSize = map->Stream.FileSize();
    NTSTATUS status = STATUS_SUCCESS;
    if (rewriteEnds && newSize != oldSize)
    {
        status = DirtyPageLocked(*map, std::min(newSize, oldSize));
    }
    if (NT_SUCCESS(status))
    {
        status = apply();
    }
    if (!NT_SUCCESS(status))
    {
        return status;
    }
    if (newSize < oldSize)
    {
        TruncateLocked(*map, newSize);
        if (newSize != 0)
        {
            map->Unsettled.push_back(std::this_thread::get_id());
            map->UnsettledCount = map->Unsettled.size();
        }
        return status;
    }
    ZeroTailLocked(*map, oldSize);
    const LONGLONG lastPage = newSize - newSize % PAGE_SIZE;
    if (rewriteEnds && newSize % PAGE_SIZE != 0 && lastPage >= oldSize)
    {
        ZeroPageLocked(*map, lastPage);
    }
    return status;
}

void CacheSettled(CacheMap* map)
{
    if (map->UnsettledCount == 0)
    {
        return;
    }
    {
        CacheMapGuard guard(*map);
        std::erase(map->Unsettled, std::this_thread::get_id());
        map->UnsettledCount = map->Unsettled.size();
    }
    map->BecameSettled.notify_all();
}

NTSTATUS CacheFlush(CacheMap* map, LONGLONG offset, LONGLONG length)
{
    CacheMapGuard guard(*map);
    guard.WaitUntilSettled();
    return FlushLocked(*map, offset, length);
}

bool CachePurge(CacheMap* map, LONGLONG offset, LONGLONG length)
{
    CacheMapGuard guard(*map);
    guard.WaitUntilSettled();
    if (!NT_SUCCESS(FlushLocked(*map, offset, length)))
    {
        return false;
    }
    ForViews(*map, offset, length,
        [&](CacheView& view, uint64_t pages)
        {
            view.Valid &= ~pages;
            if (view.Valid == 0)
            {
                DropView(*map, view);
            }
            return STATUS_SUCCESS;
        });
    return true;
}

bool CacheHasDirtyPages(CacheMap* map)
{
    return map->DirtyPages != 0;
}

bool CacheIsEmpty(CacheMap* map)
{
    std::shared_lock guard(map->Lock);
    return map->Views.empty();
}

void TrimCache()
{
    const SIZE_T limit = Model().CacheLimitBytes;
    SIZE_T held = CachedBytes();
    // Every view gets one chance: those that cannot go now do not keep the caller here.
    ULONG attempts = static_cast<ULONG>(held / CacheViewBytes);
    while (held > limit)
    {
        std::unique_lock<common::FairSharedMutex> lock;
        CacheView* view = TakeColdestView(&attempts, &lock);
        if (view == nullptr)
        {
            return;
        }
        CacheMap& map = *view->Owner;
        CacheMapGuard guard(map, std::move(lock));
        if (NT_SUCCESS(WritePages(map, *view, ~0ull)))
        {
            DropView(map, *view);
        }
        held = CachedBytes();
    }
}

SIZE_T DiscardDirtyPages()
{
    SIZE_T lost = 0;
    for (const std::shared_ptr<CacheMap>& map : RegisteredMaps())
    {
        CacheMapGuard guard(*map);
        lost += SIZE_T{map->DirtyPages} * PAGE_SIZE;
        for (auto& [index, view] : map->Views)
        {
            view->Valid &= ~view->Dirty;
            ClearDirty(*map, *view, view->Dirty);
        }
    }
    return lost;
}

void LazyWrite(ULONG least)
{
    for (const std::shared_ptr<CacheMap>& map : RegisteredMaps())
    {
        if (map->DirtyPages < least)
        {
            continue;
        }
        CacheMapGuard guard(*map);
        if (!map->Deleted && map->Unsettled.empty())
        {
            FlushLocked(*map, 0, 0);
        }
    }
}
}
