// What every file system of this folder offers besides requests: the bytes beneath it, for tests and tools.
#pragma once

#include "hosted/cc/cache.h"
#include "hosted/io/volume.h"

#include <string>
#include <string_view>

namespace hosted
{
// See the routines below.
class StoredFileSystem : public FileSystem
{
public:
    virtual bool ReadDisk(WideView path, std::string* bytes) = 0;
    virtual NTSTATUS WriteDisk(WideView path, std::string_view bytes) = 0;
};

// For both, `files` is a StoredFileSystem.

// The bytes that are stored of a stream ("\Sandbox\plan.txt", "\Sandbox\plan.txt:notes"; short names work), past the
// cache and the filters. False when there is no such stream.
bool ReadDisk(FileSystem& files, WideView path, std::string* bytes);

// Replaces what is stored of an existing stream, past the cache and the filters. STATUS_SHARING_VIOLATION while anybody
// has the stream open or the cache still has some of it, so that neither can hold other bytes than the disk.
// STATUS_OBJECT_NAME_NOT_FOUND.
NTSTATUS WriteDisk(FileSystem& files, WideView path, std::string_view bytes);

// The cache map of an open data stream, for mapped views; null for directories and volumes. Valid while the file
// object is referenced.
CacheMap* CacheMapOf(PFILE_OBJECT file);
}
