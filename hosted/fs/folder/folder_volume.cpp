#include "hosted/fs/folder/folder_volume.h"

#include "hosted/fs/folder/folder_file_system.h"

namespace hosted
{
std::unique_ptr<FileSystem> CreateFolderFileSystem(Volume& volume, FolderOptions options)
{
    return std::make_unique<FolderFileSystem>(volume, std::move(options));
}

int FolderDescriptor(PFILE_OBJECT file)
{
    return FolderBlockOf(file)->Descriptor.Get();
}

int FolderStat(PFILE_OBJECT file, struct stat* info)
{
    return static_cast<FolderFileSystem&>(FolderBlockOf(file)->Files).Stat(file, info);
}

NTSTATUS FolderReserve(PFILE_OBJECT file, LONGLONG offset, LONGLONG length)
{
    FolderBlock& block = *FolderBlockOf(file);
    return static_cast<FolderFileSystem&>(block.Files).Reserve(block, offset, length);
}

int FolderSetTimes(PFILE_OBJECT file, const timespec times[2])
{
    FolderBlock& block = *FolderBlockOf(file);
    return static_cast<FolderFileSystem&>(block.Files).SetTimes(block, times);
}
}
