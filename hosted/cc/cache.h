// The cache manager: one cache map per stream, filled and emptied by paging I/O.
#pragma once

#include "hosted/rtl/wide_string.h"

#include <fltkernel.h>

#include <functional>

namespace hosted
{
class CacheMap;

// The unit in which the cache holds a stream: so many bytes of it, contiguous in memory.
constexpr LONGLONG CacheViewBytes = 256 << 10;

// What the cache needs to know of a stream; implemented by the file system. Called with the cache map's lock held, by
// several threads at once where that is shared; must not call back into the cache.
class CachedStream
{
public:
    virtual ~CachedStream() = default;
    // Current file size in bytes.
    virtual LONGLONG FileSize() const = 0;
    // A referenced file object of this stream through which paging I/O may be sent while the map has pages.
    virtual PFILE_OBJECT PagingFileObject() = 0;
    // The offset of a byte whose page, while it is dirty, has to be written before any page behind it; -1: none.
    virtual LONGLONG WriteFirst() const { return -1; }
    // The last dirty page of the map was written. What is returned (may be empty) runs once the map's lock was let
    // go, on the thread that wrote, which may hold locks of another stream's operation; it must keep the stream alive.
    virtual std::function<void()> BecameClean() { return {}; }
};

CacheMap* CreateCacheMap(CachedStream& stream);
// Every page must be clean (bug check otherwise); frees all. Waits for a trimming or a lazy write under way.
void DeleteCacheMap(CacheMap* map);

// Copies between the cached pages and a buffer (a user address when `user`: a fault there ends the copy with its
// status). The caller has limited a read to the file size, and raised the size before a write past it.
NTSTATUS CacheRead(CacheMap* map, LONGLONG offset, void* buffer, ULONG length, bool user, ULONG_PTR* copied);
NTSTATUS CacheWrite(CacheMap* map, LONGLONG offset, const void* buffer, ULONG length, bool user, ULONG_PTR* copied);
// Brings the page that holds `offset` in under the present file size and marks it dirty, so that it is written
// again under the next one. Nothing happens when the offset is page-aligned or its page lies past the end of file.
NTSTATUS CacheDirtyPageAt(CacheMap* map, LONGLONG offset);
// Changes the file size to `newSize` by calling apply(), which alone alters what stream.FileSize() answers, while no
// paging I/O of this map is under way. With `rewriteEnds` the pages that hold the old and the new end of file are
// brought in (or zeroed, past the old end) and marked dirty before, so that they are written again under the new
// size; they are not written here. Bytes past the smaller of both ends are zero afterwards. The status is that of
// the paging read or of apply(); when it is a failure the size is what it was.
// A map that shrinks (and not to nothing) is unsettled until the same thread calls CacheSettled: whoever else follows
// its size, as a filter that learns it after the operation, must have seen the new one before dirty pages are written.
// Meanwhile they stay in memory, and other threads that want to flush or purge wait.
NTSTATUS CacheResize(CacheMap* map, LONGLONG newSize, bool rewriteEnds, const std::function<NTSTATUS()>& apply);
// What the calling thread did to the map's size is known to all who follow it.
void CacheSettled(CacheMap* map);
// Zeroes cached bytes from `offset` to the end of its page and drops whole pages behind (a truncation).
void CacheTruncate(CacheMap* map, LONGLONG newSize);
// Writes dirty pages of a range (length 0: to the end) by paging writes of clustered whole pages.
NTSTATUS CacheFlush(CacheMap* map, LONGLONG offset, LONGLONG length);
// Flushes, then forgets the pages of a range; false when pages had to stay (mapped views over them).
bool CachePurge(CacheMap* map, LONGLONG offset, LONGLONG length);
// Takes no lock.
bool CacheHasDirtyPages(CacheMap* map);
bool CacheIsEmpty(CacheMap* map);

// Mapped views share the cache's pages: reads fault them in, writes dirty them without any write request.
// Bounded by the file size rounded up to a whole page; past that STATUS_IN_PAGE_ERROR.
NTSTATUS MappedRead(CacheMap* map, LONGLONG offset, void* buffer, ULONG length);
NTSTATUS MappedWrite(CacheMap* map, LONGLONG offset, const void* buffer, ULONG length);

// Frees least recently used pages of all streams (writing dirty ones) until the model's limit holds. Called with
// no cache map lock held, by every cached operation.
void TrimCache();
// Writes the dirty pages of every settled stream, as the system's lazy writer does from time to time. Streams whose
// pages cannot be written keep them. Streams with fewer dirty pages than `least` are left for later. Called with no
// lock held.
void LazyWrite(ULONG least = 1);
// Gives up every dirty page that is left: for the end of a system whose store does not take them. The bytes lost.
SIZE_T DiscardDirtyPages();
// Bytes held by the page cache at present, and at most since the last reset.
SIZE_T CachedBytes();
SIZE_T PeakCachedBytes();
void ResetPeakCachedBytes();
}
