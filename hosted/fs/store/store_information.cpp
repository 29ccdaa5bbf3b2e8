// Changing times and attributes, and deletion.
#include "hosted/fs/store/store_file_system.h"

#include "hosted/ke/system_time.h"

namespace hosted
{
namespace
{
// Zero leaves a time as it is; so does minus one, which stops the file system's own changes.
void SetTime(LONGLONG* time, const LARGE_INTEGER& asked)
{
    if (asked.QuadPart > 0)
    {
        *time = asked.QuadPart;
    }
}
}

NTSTATUS StoreFileSystem::SetOther(FLT_IO_PARAMETER_BLOCK& operation)
{
    const PFILE_OBJECT file = operation.TargetFileObject;
    FILE_BASIC_INFORMATION basic;
    FILE_DISPOSITION_INFORMATION disposition;
    switch (operation.Parameters.SetFileInformation.FileInformationClass)
    {
    case FileBasicInformation:
        return TakeRecord(operation, &basic) ? SetBasic(*StoreBlockOf(file), basic) : STATUS_INFO_LENGTH_MISMATCH;
    case FileDispositionInformation:
        return TakeRecord(operation, &disposition) ? SetDisposition(file, disposition.DoDeleteFile != 0)
                                                   : STATUS_INFO_LENGTH_MISMATCH;
    case FileRenameInformation:
        return Rename(operation);
    default:
        return STATUS_INVALID_INFO_CLASS;
    }
}

NTSTATUS StoreFileSystem::SetBasic(StoreBlock& block, const FILE_BASIC_INFORMATION& basic)
{
    std::lock_guard guard(tree_);
    Node* node = block.Owner.get();
    StoredNode& info = node->Info;
    if ((basic.FileAttributes & FILE_ATTRIBUTE_DIRECTORY) && !info.Directory)
    {
        return STATUS_INVALID_PARAMETER;
    }
    info.ChangeTime = SystemTime();
    SetTime(&info.CreationTime, basic.CreationTime);
    SetTime(&info.LastAccessTime, basic.LastAccessTime);
    SetTime(&info.LastWriteTime, basic.LastWriteTime);
    SetTime(&info.ChangeTime, basic.ChangeTime);
    if (basic.FileAttributes != 0)
    {
        info.Attributes = (basic.FileAttributes & SettableAttributes & ~FILE_ATTRIBUTE_NORMAL) |
                          (info.Directory ? FILE_ATTRIBUTE_DIRECTORY : 0);
    }
    node->Changed = true;
    SaveIfChanged(node);
    return STATUS_SUCCESS;
}

NTSTATUS StoreFileSystem::SetDisposition(PFILE_OBJECT file, bool remove)
{
    std::lock_guard guard(tree_);
    StoreBlock* block = StoreBlockOf(file);
    Node* node = block->Owner.get();
    if (remove && (node == root_.get() || (node->Info.Attributes & FILE_ATTRIBUTE_READONLY)))
    {
        return STATUS_CANNOT_DELETE;
    }
    const bool wholeNode = block->Record->Name.empty();
    if (remove && wholeNode && !node->Children.empty())
    {
        return STATUS_DIRECTORY_NOT_EMPTY;
    }
    (wholeNode ? node->DeletePending : block->Record->DeletePending) = remove;
    file->DeletePending = remove;
    return STATUS_SUCCESS;
}
}
