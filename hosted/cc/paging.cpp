// Between pages and disk: clustered paging reads and writes of one view.
#include "hosted/cc/cache_map.h"

#include "hosted/io/file.h"

namespace hosted
{
namespace
{
// The first run of set bits: its first page and its length; false when there is none.
bool NextRun(uint64_t pages, ULONG* first, ULONG* count)
{
    if (pages == 0)
    {
        return false;
    }
    *first = std::countr_zero(pages);
    *count = std::countr_one(pages >> *first);
    return true;
}
}

void SetDirty(CacheMap& map, CacheView& view, uint64_t pages)
{
    map.DirtyPages += std::popcount(pages & ~view.Dirty);
    view.Dirty |= pages;
}

void ClearDirty(CacheMap& map, CacheView& view, uint64_t pages)
{
    map.DirtyPages -= std::popcount(pages & view.Dirty);
    view.Dirty &= ~pages;
}

NTSTATUS FillPages(CacheMap& map, CacheView& view, ULONG first, ULONG last)
{
    uint64_t missing = PageMask(first, last) & ~view.Valid;
    ULONG start;
    ULONG count;
    while (NextRun(missing, &start, &count))
    {
        UCHAR* memory = view.Memory + start * PAGE_SIZE;
        const ULONG length = count * PAGE_SIZE;
        IO_STATUS_BLOCK result = {};
        NTSTATUS status =
            PagingRead(map.Stream.PagingFileObject(), view.Start() + start * PAGE_SIZE, memory, length, &result);
        if (status == STATUS_END_OF_FILE)
        {
            result.Information = 0;
        }
        else if (!NT_SUCCESS(status))
        {
            return status;
        }
        // What lies past the transferred bytes lies past the end of file, and a page never shows anything there.
        if (result.Information < length)
        {
            RtlZeroMemory(memory + result.Information, length - result.Information);
        }
        const uint64_t filled = PageMask(start, start + count - 1);
        view.Valid |= filled;
        missing &= ~filled;
    }
    return STATUS_SUCCESS;
}

namespace
{
NTSTATUS WriteRuns(CacheMap& map, CacheView& view, uint64_t pages)
{
    ULONG start;
    ULONG count;
    while (NextRun(view.Dirty & pages, &start, &count))
    {
        IO_STATUS_BLOCK result = {};
        NTSTATUS status = PagingWrite(map.Stream.PagingFileObject(), view.Start() + start * PAGE_SIZE,
            view.Memory + start * PAGE_SIZE, count * PAGE_SIZE, &result);
        if (!NT_SUCCESS(status))
        {
            return status;
        }
        ClearDirty(map, view, PageMask(start, start + count - 1));
    }
    return STATUS_SUCCESS;
}
}

NTSTATUS WritePages(CacheMap& map, CacheView& view, uint64_t pages)
{
    const LONGLONG first = (view.Dirty & pages) != 0 ? map.Stream.WriteFirst() : -1;
    CacheView* firstView = first >= 0 ? FindView(map, first / CacheViewBytes) : nullptr;
    if (firstView != nullptr)
    {
        const ULONG page = static_cast<ULONG>(first % CacheViewBytes / PAGE_SIZE);
        // In ascending order it comes first by itself where it is among the pages.
        const bool among = firstView == &view && (pages & PageMask(page, page)) != 0;
        NTSTATUS status = among ? STATUS_SUCCESS : WriteRuns(map, *firstView, PageMask(page, page));
        if (!NT_SUCCESS(status))
        {
            return status;
        }
    }
    return WriteRuns(map, view, pages);
}
}
