// The file routines that drivers call with handles.
#include "hosted/io/file_object.h"

#include "hosted/io/device.h"
#include "hosted/ke/bug_check.h"
#include "hosted/ke/failure_injection.h"
#include "hosted/ke/irql.h"
#include "hosted/ob/handle_table.h"

namespace hosted
{
namespace
{
NTSTATUS ReferenceFile(HANDLE handle, ACCESS_MASK desired, PFILE_OBJECT* file)
{
    void* body = nullptr;
    const NTSTATUS status = TableOf(handle).Reference(handle, desired, &FileType, KernelMode, &body);
    *file = NT_SUCCESS(status) ? static_cast<PFILE_OBJECT>(body) : nullptr;
    return status;
}

NTSTATUS Complete(PIO_STATUS_BLOCK block, NTSTATUS status, ULONG_PTR information)
{
    block->Pointer = nullptr;
    block->Status = status;
    block->Information = information;
    return status;
}

// Where a write goes that names no place, or one of the two that stand for a place.
NTSTATUS ChooseOffset(PFILE_OBJECT file, const LARGE_INTEGER* wanted, LONGLONG* offset)
{
    const bool atPosition =
        wanted == nullptr || (wanted->HighPart == -1 && wanted->LowPart == FILE_USE_FILE_POINTER_POSITION);
    if (!atPosition)
    {
        *offset = wanted->QuadPart;
        return STATUS_SUCCESS;
    }
    // Messages have no place. Files know theirs only while their requests come one after the other.
    *offset = 0;
    if (file->Flags & (FO_MAILSLOT | FO_NAMED_PIPE))
    {
        return STATUS_SUCCESS;
    }
    *offset = __atomic_load_n(&file->CurrentByteOffset.QuadPart, __ATOMIC_RELAXED);
    return file->Flags & FO_SYNCHRONOUS_IO ? STATUS_SUCCESS : STATUS_INVALID_PARAMETER;
}

NTSTATUS WriteAt(PFILE_OBJECT file, LONGLONG offset, void* buffer, ULONG length, ULONG_PTR* written)
{
    if (VolumeOfFile(file) == nullptr)
    {
        return SendDeviceWrite(file->DeviceObject, file, buffer, length, offset, KernelMode, written);
    }
    IO_STATUS_BLOCK result{};
    const NTSTATUS status = WriteFile(file, offset, buffer, length, &result);
    *written = result.Information;
    if (NT_SUCCESS(status) && file->Flags & FO_SYNCHRONOUS_IO && offset >= 0)
    {
        const LONGLONG next = offset + static_cast<LONGLONG>(result.Information);
        __atomic_store_n(&file->CurrentByteOffset.QuadPart, next, __ATOMIC_RELAXED);
    }
    return status;
}
}
}

using namespace hosted;

extern "C" NTSTATUS NTAPI ZwOpenFile(PHANDLE FileHandle, ACCESS_MASK DesiredAccess, POBJECT_ATTRIBUTES ObjectAttributes,
    PIO_STATUS_BLOCK IoStatusBlock, ULONG ShareAccess, ULONG OpenOptions)
{
    RequireIrql(PASSIVE_LEVEL, "ZwOpenFile");
    if (ObjectAttributes->Length != sizeof(OBJECT_ATTRIBUTES) || ObjectAttributes->ObjectName == nullptr)
    {
        return STATUS_INVALID_PARAMETER;
    }
    if (InjectFailure("ZwOpenFile"))
    {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    OpenRequest request;
    request.Path = WideString(View(*ObjectAttributes->ObjectName));
    request.DesiredAccess = DesiredAccess;
    request.ShareAccess = ShareAccess;
    request.Options = OpenOptions;
    request.FileAttributes = 0;
    request.Mode = KernelMode;
    request.StackFlags = ObjectAttributes->Attributes & OBJ_CASE_INSENSITIVE ? 0 : SL_CASE_SENSITIVE;
    NTSTATUS status = STATUS_SUCCESS;
    if (ObjectAttributes->RootDirectory != nullptr)
    {
        status = ReferenceFile(ObjectAttributes->RootDirectory, 0, &request.Root);
    }
    PFILE_OBJECT file = nullptr;
    ULONG_PTR information = 0;
    if (NT_SUCCESS(status))
    {
        status = OpenFile(request, &file, &information);
    }
    if (request.Root != nullptr)
    {
        DereferenceObject(request.Root);
    }
    if (NT_SUCCESS(status))
    {
        *FileHandle = TableFor(ObjectAttributes->Attributes).Insert(file, StateOf(file)->Granted);
        DereferenceObject(file);
        Complete(IoStatusBlock, status, information);
    }
    return status;
}

extern "C" NTSTATUS NTAPI ZwWriteFile(HANDLE FileHandle, HANDLE Event, PIO_APC_ROUTINE ApcRoutine, PVOID /*ApcContext*/,
    PIO_STATUS_BLOCK IoStatusBlock, PVOID Buffer, ULONG Length, PLARGE_INTEGER ByteOffset, PULONG Key)
{
    RequireIrql(PASSIVE_LEVEL, "ZwWriteFile");
    if (Event != nullptr || ApcRoutine != nullptr || Key != nullptr)
    {
        BugCheck("NOT_MODELLED", "ZwWriteFile: only writes that the caller waits for itself, without a key, are "
                                 "modelled");
    }
    PFILE_OBJECT file;
    NTSTATUS status = ReferenceFile(FileHandle, FILE_WRITE_DATA, &file);
    if (!NT_SUCCESS(status))
    {
        return status;
    }
    LONGLONG offset = 0;
    status = InjectFailure("ZwWriteFile") ? STATUS_INSUFFICIENT_RESOURCES : ChooseOffset(file, ByteOffset, &offset);
    if (NT_SUCCESS(status))
    {
        ULONG_PTR written = 0;
        status = WriteAt(file, offset, Buffer, Length, &written);
        if (!NT_ERROR(status))
        {
            Complete(IoStatusBlock, status, written);
        }
    }
    DereferenceObject(file);
    return status;
}

extern "C" NTSTATUS NTAPI ZwQueryDirectoryFile(HANDLE FileHandle, HANDLE Event, PIO_APC_ROUTINE ApcRoutine,
    PVOID /*ApcContext*/, PIO_STATUS_BLOCK IoStatusBlock, PVOID FileInformation, ULONG Length,
    FILE_INFORMATION_CLASS FileInformationClass, BOOLEAN ReturnSingleEntry, PUNICODE_STRING FileName,
    BOOLEAN RestartScan)
{
    RequireIrql(PASSIVE_LEVEL, "ZwQueryDirectoryFile");
    if (Event != nullptr || ApcRoutine != nullptr)
    {
        BugCheck("NOT_MODELLED", "ZwQueryDirectoryFile: only queries that the caller waits for itself are modelled");
    }
    PFILE_OBJECT file;
    NTSTATUS status = ReferenceFile(FileHandle, FILE_LIST_DIRECTORY, &file);
    if (!NT_SUCCESS(status))
    {
        return status;
    }
    ULONG_PTR used = 0;
    status = STATUS_INSUFFICIENT_RESOURCES;
    if (!InjectFailure("ZwQueryDirectoryFile"))
    {
        const WideView pattern = FileName != nullptr ? View(*FileName) : WideView();
        status = QueryDirectory(
            file, FileInformationClass, ReturnSingleEntry, RestartScan, pattern, FileInformation, Length, &used);
        if (!NT_ERROR(status))
        {
            Complete(IoStatusBlock, status, used);
        }
    }
    DereferenceObject(file);
    return status;
}

extern "C" BOOLEAN NTAPI FsRtlIsPagingFile(PFILE_OBJECT FileObject)
{
    Volume* volume = VolumeOfFile(FileObject);
    return volume != nullptr && volume->Files->IsPagingFile(FileObject);
}
