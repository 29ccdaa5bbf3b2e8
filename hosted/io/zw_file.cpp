// The file routines that drivers call with handles.
#include "hosted/io/file_object.h"

#include "hosted/ke/bug_check.h"
#include "hosted/ke/failure_injection.h"
#include "hosted/ke/irql.h"
#include "hosted/ob/handle_table.h"

namespace host
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
}
}

using namespace host;

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

extern "C" NTSTATUS NTAPI ZwQueryDirectoryFile(HANDLE FileHandle, HANDLE Event, PIO_APC_ROUTINE ApcRoutine,
                                               PVOID /*ApcContext*/, PIO_STATUS_BLOCK IoStatusBlock,
                                               PVOID FileInformation, ULONG Length,
                                               FILE_INFORMATION_CLASS FileInformationClass, BOOLEAN ReturnSingleEntry,
                                               PUNICODE_STRING FileName, BOOLEAN RestartScan)
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
        status = QueryDirectory(file, FileInformationClass, ReturnSingleEntry, RestartScan, pattern, FileInformation,
                                Length, &used);
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
