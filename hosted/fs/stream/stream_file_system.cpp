// Handing operations on to the routines that carry them out.
#include "hosted/fs/stream/stream_file_system.h"

namespace hosted
{
NTSTATUS StreamFileSystem::Dispatch(FLT_IO_PARAMETER_BLOCK& operation, IO_STATUS_BLOCK& status)
{
    ULONG_PTR information = 0;
    NTSTATUS result;
    switch (operation.MajorFunction)
    {
    case IRP_MJ_CREATE:
        result = Create(operation, &information);
        break;
    case IRP_MJ_READ:
        result = Read(operation, &information);
        break;
    case IRP_MJ_WRITE:
        result = Write(operation, &information);
        break;
    case IRP_MJ_QUERY_INFORMATION:
        result = QueryInformation(operation, &information);
        break;
    case IRP_MJ_SET_INFORMATION:
        result = SetInformation(operation);
        break;
    case IRP_MJ_DIRECTORY_CONTROL:
        result = operation.MinorFunction == IRP_MN_QUERY_DIRECTORY ? QueryDirectory(operation, &information)
                                                                   : STATUS_INVALID_DEVICE_REQUEST;
        break;
    case IRP_MJ_FLUSH_BUFFERS:
        result = Flush(operation.TargetFileObject);
        break;
    case IRP_MJ_CLEANUP:
        Cleanup(operation.TargetFileObject);
        result = STATUS_SUCCESS;
        break;
    case IRP_MJ_CLOSE:
        result = Close(operation.TargetFileObject);
        break;
    default:
        result = STATUS_INVALID_DEVICE_REQUEST;
        break;
    }
    status.Pointer = nullptr;
    status.Status = result;
    status.Information = information;
    return result;
}

bool StreamFileSystem::FastIoPossible(PFILE_OBJECT fileObject, bool write, ULONG length)
{
    const ControlBlock* block = BlockOf(fileObject);
    const ULONG flags = __atomic_load_n(&fileObject->Flags, __ATOMIC_RELAXED);
    const bool caching = __atomic_load_n(&fileObject->PrivateCacheMap, __ATOMIC_RELAXED) != nullptr;
    // Written through, a write waits for the disk, which a fast operation never does.
    const bool through = write && (flags & FO_WRITE_THROUGH);
    return block != nullptr && caching && length != 0 && (flags & FO_CACHE_SUPPORTED) && !through &&
           !(flags & FO_CLEANUP_COMPLETE) && !block->PagingFileStream;
}

void StreamFileSystem::Settled(PFILE_OBJECT fileObject)
{
    const ControlBlock* block = BlockOf(fileObject);
    if (block != nullptr && block->Map != nullptr)
    {
        CacheSettled(block->Map);
    }
}

bool StreamFileSystem::IsDirectory(PFILE_OBJECT fileObject)
{
    const ControlBlock* block = BlockOf(fileObject);
    return block != nullptr && block->Kind == StreamKind::Directory;
}

bool StreamFileSystem::IsPagingFile(PFILE_OBJECT fileObject)
{
    const ControlBlock* block = BlockOf(fileObject);
    return block != nullptr && block->PagingFileStream;
}
}
