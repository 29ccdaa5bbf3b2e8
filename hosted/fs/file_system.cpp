#include "hosted/fs/file_system.h"

namespace hosted
{
bool ReadDisk(FileSystem& files, WideView path, std::string* bytes)
{
    return static_cast<StoredFileSystem&>(files).ReadDisk(path, bytes);
}

NTSTATUS WriteDisk(FileSystem& files, WideView path, std::string_view bytes)
{
    return static_cast<StoredFileSystem&>(files).WriteDisk(path, bytes);
}

CacheMap* CacheMapOf(PFILE_OBJECT file)
{
    const SECTION_OBJECT_POINTERS* sections = file->SectionObjectPointer;
    return sections == nullptr ? nullptr : static_cast<CacheMap*>(sections->SharedCacheMap);
}
}
