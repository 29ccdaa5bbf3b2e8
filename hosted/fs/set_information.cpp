// Changing sizes, times and attributes, and deletion.
#include "hosted/fs/disk_file_system.h"

#include "hosted/ke/system_time.h"

#include <cstring>

namespace host
{
namespace
{
// The information buffer's contents, which need not be aligned.
template <class Record>
bool Take(const FLT_IO_PARAMETER_BLOCK& operation, Record* record)
{
    const auto& parameters = operation.Parameters.SetFileInformation;
    if (parameters.Length < sizeof(Record))
    {
        return false;
    }
    std::memcpy(record, parameters.InfoBuffer, sizeof(Record));
    return true;
}

// Zero leaves a time as it is; so does minus one, which stops the file system's own changes.
void SetTime(LONGLONG* time, const LARGE_INTEGER& asked)
{
    if (asked.QuadPart > 0)
    {
        *time = asked.QuadPart;
    }
}
}

NTSTATUS DiskFileSystem::SetInformation(FLT_IO_PARAMETER_BLOCK& operation)
{
    const PFILE_OBJECT file = operation.TargetFileObject;
    ControlBlock* block = BlockOf(file);
    if (block == nullptr || block->Owner == volumeNode_)
    {
        return STATUS_INVALID_PARAMETER;
    }
    const auto& parameters = operation.Parameters.SetFileInformation;
    LARGE_INTEGER number;
    FILE_BASIC_INFORMATION basic;
    FILE_DISPOSITION_INFORMATION disposition;
    switch (parameters.FileInformationClass)
    {
    case FileEndOfFileInformation:
        // Advance-only changes come from a lazy writer that keeps the valid-data length, which is the size here.
        if (Take(operation, &number) && parameters.AdvanceOnly)
        {
            return STATUS_SUCCESS;
        }
        return Take(operation, &number) ? SetEndOfFile(*block, number.QuadPart) : STATUS_INFO_LENGTH_MISMATCH;
    case FileAllocationInformation:
        if (!Take(operation, &number))
        {
            return STATUS_INFO_LENGTH_MISMATCH;
        }
        // Room is never kept in advance, but what is given up takes the data with it.
        return number.QuadPart >= 0 && number.QuadPart >= block->Size() && block->Map != nullptr
                   ? STATUS_SUCCESS
                   : SetEndOfFile(*block, number.QuadPart);
    case FileValidDataLengthInformation:
        if (!Take(operation, &number))
        {
            return STATUS_INFO_LENGTH_MISMATCH;
        }
        return number.QuadPart >= 0 && number.QuadPart <= block->Size() ? STATUS_SUCCESS : STATUS_INVALID_PARAMETER;
    case FilePositionInformation:
        if (!Take(operation, &number))
        {
            return STATUS_INFO_LENGTH_MISMATCH;
        }
        __atomic_store_n(&file->CurrentByteOffset.QuadPart, number.QuadPart, __ATOMIC_RELAXED);
        return number.QuadPart >= 0 ? STATUS_SUCCESS : STATUS_INVALID_PARAMETER;
    case FileBasicInformation:
        return Take(operation, &basic) ? SetBasic(*block, basic) : STATUS_INFO_LENGTH_MISMATCH;
    case FileDispositionInformation:
        return Take(operation, &disposition) ? SetDisposition(file, disposition.DoDeleteFile != 0)
                                             : STATUS_INFO_LENGTH_MISMATCH;
    case FileRenameInformation:
        return Rename(operation);
    default:
        return STATUS_INVALID_INFO_CLASS;
    }
}

NTSTATUS DiskFileSystem::SetEndOfFile(ControlBlock& block, LONGLONG size)
{
    if (block.Map == nullptr || size < 0)
    {
        return STATUS_INVALID_PARAMETER;
    }
    NTSTATUS status;
    {
        std::unique_lock main(block.Main);
        status = Resize(block, size, !options_.StrictEndOfFile);
    }
    if (NT_SUCCESS(status))
    {
        Written(block);
    }
    return status;
}

NTSTATUS DiskFileSystem::SetBasic(ControlBlock& block, const FILE_BASIC_INFORMATION& basic)
{
    constexpr ULONG Settable = 0x000001a7; // read-only, hidden, system, archive, normal, temporary
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
        info.Attributes = (basic.FileAttributes & Settable & ~FILE_ATTRIBUTE_NORMAL) |
                          (info.Directory ? FILE_ATTRIBUTE_DIRECTORY : 0);
    }
    node->Changed = true;
    SaveIfChanged(node);
    return STATUS_SUCCESS;
}

NTSTATUS DiskFileSystem::SetDisposition(PFILE_OBJECT file, bool remove)
{
    std::lock_guard guard(tree_);
    ControlBlock* block = BlockOf(file);
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
