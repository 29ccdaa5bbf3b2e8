// A file system of the hosted kernel: an NTFS-like tree of files, directories and alternate streams over a store.
#pragma once

#include "hosted/cc/cache.h"
#include "hosted/fs/store.h"
#include "hosted/io/volume.h"

namespace hosted
{
struct FileSystemOptions
{
    // Setting the end of file leaves the pages that hold the old and the new end alone, as a file system with a
    // valid-data length may, instead of writing them again under the new size.
    bool StrictEndOfFile = false;
    // Names that are not 8.3 names get one.
    bool ShortNames = true;
};

// Mounts what the store holds. `volume` (its sector size and disk device are used) must outlive the file system; the
// device may be made later, before the first open. Destroying it is a bug check while streams are open or dirty.
std::unique_ptr<FileSystem> CreateFileSystem(
    Volume& volume, std::unique_ptr<Store> store, FileSystemOptions options = {});

// The bytes that the store holds of a stream ("\Sandbox\plan.txt", "\Sandbox\plan.txt:notes"; short names work),
// past the cache and the filters. False when there is no such stream. `files` is one of the hosted kernel's own.
bool ReadDisk(FileSystem& files, WideView path, std::string* bytes);

// Replaces what the store holds of an existing stream, past the cache and the filters. STATUS_SHARING_VIOLATION while
// anybody has the stream open or the cache still has some of it, so that neither can hold other bytes than the disk.
// STATUS_OBJECT_NAME_NOT_FOUND.
NTSTATUS WriteDisk(FileSystem& files, WideView path, std::string_view bytes);

// The cache map of an open data stream, for mapped views; null for directories and volumes. Valid while the file
// object is referenced.
CacheMap* CacheMapOf(PFILE_OBJECT file);
}
