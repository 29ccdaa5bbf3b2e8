// Changing times, and deletion, in the folder.
#include "hosted/fs/folder/folder_file_system.h"

#include "hosted/io/posix_information.h"

#include <dirent.h>
#include <fcntl.h>
#include <string_view>

namespace hosted
{
namespace
{
bool IsEmptyDirectory(int descriptor)
{
    DIR* listing = fdopendir(openat(descriptor, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    bool empty = true;
    while (const dirent* entry = listing != nullptr ? readdir(listing) : nullptr)
    {
        const std::string_view name = entry->d_name;
        empty = empty && (name == "." || name == "..");
    }
    if (listing != nullptr)
    {
        closedir(listing);
    }
    return empty;
}

// Zero leaves a time as it is; so does minus one, which stops the file system's own changes.
timespec TimeToSet(const LARGE_INTEGER& asked)
{
    return asked.QuadPart > 0 ? LinuxTimeOf(asked.QuadPart) : timespec{0, UTIME_OMIT};
}
}

NTSTATUS FolderFileSystem::SetOther(FLT_IO_PARAMETER_BLOCK& operation)
{
    const PFILE_OBJECT file = operation.TargetFileObject;
    if (options_.ReadOnly)
    {
        return STATUS_MEDIA_WRITE_PROTECTED;
    }
    if (FolderOpenOf(file) == nullptr)
    {
        return STATUS_INVALID_PARAMETER;
    }
    FILE_BASIC_INFORMATION basic;
    FILE_DISPOSITION_INFORMATION disposition;
    DispositionEx dispositionEx;
    BOOLEAN replace;
    ULONG renameFlags;
    switch (operation.Parameters.SetFileInformation.FileInformationClass)
    {
    case FileBasicInformation:
        return TakeRecord(operation, &basic) ? SetBasic(*FolderBlockOf(file), basic) : STATUS_INFO_LENGTH_MISMATCH;
    case FileDispositionInformation:
        return TakeRecord(operation, &disposition) ? SetDisposition(file, disposition.DoDeleteFile != 0)
                                                   : STATUS_INFO_LENGTH_MISMATCH;
    case FileDispositionInformationEx:
        if (!TakeRecord(operation, &dispositionEx))
        {
            return STATUS_INFO_LENGTH_MISMATCH;
        }
        return (dispositionEx.Flags & DispositionEx::Delete) && (dispositionEx.Flags & DispositionEx::PosixSemantics)
                   ? RemoveNow(file)
                   : SetDisposition(file, (dispositionEx.Flags & DispositionEx::Delete) != 0);
    case FileRenameInformation:
        if (!TakeRecord(operation, &replace))
        {
            return STATUS_INFO_LENGTH_MISMATCH;
        }
        return Rename(operation, replace ? RenameEx::ReplaceIfExists : 0);
    case FileRenameInformationEx:
        return TakeRecord(operation, &renameFlags) ? Rename(operation, renameFlags) : STATUS_INFO_LENGTH_MISMATCH;
    case FileLinkInformation:
        return Link(operation);
    default:
        return STATUS_INVALID_INFO_CLASS;
    }
}

// Attributes are what the host makes of the file and cannot be set; asking for them does no harm.
NTSTATUS FolderFileSystem::SetBasic(FolderBlock& block, const FILE_BASIC_INFORMATION& basic)
{
    if ((basic.FileAttributes & FILE_ATTRIBUTE_DIRECTORY) && block.Kind != StreamKind::Directory)
    {
        return STATUS_INVALID_PARAMETER;
    }
    const timespec times[2] = {TimeToSet(basic.LastAccessTime), TimeToSet(basic.LastWriteTime)};
    const int error = SetTimes(block, times);
    return error == 0 ? STATUS_SUCCESS : StatusFromErrno(error);
}

NTSTATUS FolderFileSystem::SetDisposition(PFILE_OBJECT file, bool remove)
{
    std::lock_guard guard(tree_);
    FolderEntry& entry = *FolderOpenOf(file)->Entry;
    const FolderBlock& block = *FolderBlockOf(file);
    if (entry.IsRoot() || entry.Gone)
    {
        return entry.Gone ? STATUS_FILE_DELETED : STATUS_CANNOT_DELETE;
    }
    if (remove && block.Kind == StreamKind::Directory && !IsEmptyDirectory(block.Descriptor.Get()))
    {
        return STATUS_DIRECTORY_NOT_EMPTY;
    }
    entry.DeletePending = remove;
    file->DeletePending = remove;
    return STATUS_SUCCESS;
}

NTSTATUS FolderFileSystem::RemoveNow(PFILE_OBJECT file)
{
    std::vector<std::shared_ptr<ControlBlock>> discard;
    NTSTATUS status;
    {
        std::unique_lock names(names_);
        status = RemoveName(*FolderOpenOf(file)->Entry, &discard);
    }
    Discard(discard);
    return status;
}
}
