// Cached reads and writes, and mapped views over the same pages.
#include "hosted/cc/cache_map.h"

#include "hosted/ke/user_access.h"

#include <algorithm>

namespace hosted
{
namespace
{
// One side may be user memory: a fault there ends the copy with its status.
NTSTATUS CopyBytes(void* to, const void* from, SIZE_T length, bool user)
{
    if (user)
    {
        return GuardedCopy(to, from, length);
    }
    RtlCopyMemory(to, from, length);
    return STATUS_SUCCESS;
}

// The part of a transfer that lies in one view.
struct Chunk
{
    LONGLONG Index;
    ULONG Begin; // within the view
    ULONG Length;
    ULONG FirstPage;
    ULONG LastPage;

    Chunk(LONGLONG offset, ULONG length)
        : Index(offset / CacheViewBytes), Begin(static_cast<ULONG>(offset % CacheViewBytes)),
          Length(static_cast<ULONG>(std::min<LONGLONG>(length, CacheViewBytes - Begin))), FirstPage(Begin / PAGE_SIZE),
          LastPage((Begin + Length - 1) / PAGE_SIZE)
    {
    }
};

// The last page of the view that holds bytes of the file; the file reaches into the view.
ULONG LastFilePage(const CacheView& view, LONGLONG fileSize)
{
    return static_cast<ULONG>(std::min<LONGLONG>(fileSize - view.Start() - 1, CacheViewBytes - 1) / PAGE_SIZE);
}

NTSTATUS ReadChunk(CacheMap& map, const Chunk& chunk, void* to, bool user)
{
    std::shared_lock guard(map.Lock);
    CacheView& view = GetView(map, chunk.Index);
    const LONGLONG offset = view.Start() + chunk.Begin;
    ULONG last = chunk.LastPage;
    // Someone who reads on from where he stopped will want the rest of the view, too.
    if (offset == map.NextSequential && map.Stream.FileSize() > view.Start())
    {
        last = std::max(last, LastFilePage(view, map.Stream.FileSize()));
    }
    map.NextSequential = offset + chunk.Length;
    NTSTATUS status;
    {
        std::lock_guard filling(view.Filling);
        status = FillPages(map, view, chunk.FirstPage, last);
    }
    return NT_SUCCESS(status) ? CopyBytes(to, view.Memory + chunk.Begin, chunk.Length, user) : status;
}

// Makes the pages of the chunk ready to be written on. A page that the chunk covers as far as the file goes is not
// read first; *fresh receives the pages that hold nothing yet.
NTSTATUS PreparePages(CacheMap& map, CacheView& view, const Chunk& chunk, uint64_t* fresh)
{
    const ULONG end = chunk.Begin + chunk.Length;
    const bool endsFile = view.Start() + end >= map.Stream.FileSize();
    for (ULONG page : {chunk.FirstPage, chunk.LastPage})
    {
        const bool fromStart = chunk.Begin <= page * PAGE_SIZE;
        const bool toEnd = end >= (page + 1) * PAGE_SIZE || endsFile;
        if (!(fromStart && toEnd))
        {
            NTSTATUS status = FillPages(map, view, page, page);
            if (!NT_SUCCESS(status))
            {
                return status;
            }
        }
    }
    *fresh = PageMask(chunk.FirstPage, chunk.LastPage) & ~view.Valid;
    if (endsFile && (*fresh & PageMask(chunk.LastPage, chunk.LastPage)) != 0)
    {
        RtlZeroMemory(view.Memory + end, (chunk.LastPage + 1) * PAGE_SIZE - end);
    }
    return STATUS_SUCCESS;
}

NTSTATUS WriteChunk(CacheMap& map, const Chunk& chunk, const void* from, bool user)
{
    CacheMapGuard guard(map);
    CacheView& view = GetView(map, chunk.Index);
    uint64_t fresh = 0;
    NTSTATUS status = PreparePages(map, view, chunk, &fresh);
    if (!NT_SUCCESS(status))
    {
        return status;
    }
    status = CopyBytes(view.Memory + chunk.Begin, from, chunk.Length, user);
    const uint64_t pages = PageMask(chunk.FirstPage, chunk.LastPage);
    if (NT_SUCCESS(status))
    {
        view.Valid |= pages;
        SetDirty(map, view, pages);
    }
    else
    {
        // The copy may have ended anywhere: pages with contents may have changed, the others still have none.
        SetDirty(map, view, pages & ~fresh);
    }
    return status;
}
}

NTSTATUS CacheRead(CacheMap* map, LONGLONG offset, void* buffer, ULONG length, bool user, ULONG_PTR* copied)
{
    *copied = 0;
    NTSTATUS status = STATUS_SUCCESS;
    while (*copied < length && NT_SUCCESS(status))
    {
        Chunk chunk(offset + *copied, static_cast<ULONG>(length - *copied));
        status = ReadChunk(*map, chunk, static_cast<UCHAR*>(buffer) + *copied, user);
        *copied += NT_SUCCESS(status) ? chunk.Length : 0;
        TrimCache();
    }
    return status;
}

NTSTATUS CacheWrite(CacheMap* map, LONGLONG offset, const void* buffer, ULONG length, bool user, ULONG_PTR* copied)
{
    *copied = 0;
    NTSTATUS status = STATUS_SUCCESS;
    while (*copied < length && NT_SUCCESS(status))
    {
        Chunk chunk(offset + *copied, static_cast<ULONG>(length - *copied));
        status = WriteChunk(*map, chunk, static_cast<const UCHAR*>(buffer) + *copied, user);
        *copied += NT_SUCCESS(status) ? chunk.Length : 0;
        TrimCache();
    }
    return status;
}

namespace
{
// One access through a mapped view, within one cache view. Its bounds and the access itself see the same file size.
NTSTATUS MappedAccess(CacheMap& map, const Chunk& chunk, UCHAR* buffer, bool write)
{
    CacheMapGuard guard(map);
    const LONGLONG start = chunk.Index * CacheViewBytes;
    const LONGLONG bound = static_cast<LONGLONG>(ROUND_TO_PAGES(map.Stream.FileSize()));
    if (start + chunk.Begin + chunk.Length > bound)
    {
        return STATUS_IN_PAGE_ERROR;
    }
    CacheView& view = GetView(map, chunk.Index);
    NTSTATUS status = FillPages(map, view, chunk.FirstPage, chunk.LastPage);
    if (!NT_SUCCESS(status))
    {
        // Whatever the reason, a program that touches the view sees this one exception.
        return STATUS_IN_PAGE_ERROR;
    }
    UCHAR* cached = view.Memory + chunk.Begin;
    if (write)
    {
        RtlCopyMemory(cached, buffer, chunk.Length);
        SetDirty(map, view, PageMask(chunk.FirstPage, chunk.LastPage));
    }
    else
    {
        RtlCopyMemory(buffer, cached, chunk.Length);
    }
    return STATUS_SUCCESS;
}

NTSTATUS MappedTransfer(CacheMap* map, LONGLONG offset, UCHAR* buffer, ULONG length, bool write)
{
    NTSTATUS status = offset < 0 ? STATUS_IN_PAGE_ERROR : STATUS_SUCCESS;
    for (ULONG done = 0; done < length && NT_SUCCESS(status);)
    {
        Chunk chunk(offset + done, length - done);
        status = MappedAccess(*map, chunk, buffer + done, write);
        done += chunk.Length;
        TrimCache();
    }
    return status;
}
}

NTSTATUS MappedRead(CacheMap* map, LONGLONG offset, void* buffer, ULONG length)
{
    return MappedTransfer(map, offset, static_cast<UCHAR*>(buffer), length, false);
}

NTSTATUS MappedWrite(CacheMap* map, LONGLONG offset, const void* buffer, ULONG length)
{
    return MappedTransfer(map, offset, static_cast<UCHAR*>(const_cast<void*>(buffer)), length, true);
}
}
