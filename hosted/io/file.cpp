// Opening and closing files.
#include "hosted/io/file_object.h"

#include "hosted/io/device.h"
#include "hosted/ke/bug_check.h"
#include "hosted/ke/irql.h"
#include "hosted/ob/name_space.h"

#include <algorithm>

namespace hosted
{
namespace
{
constexpr ULONG SynchronousOptions = FILE_SYNCHRONOUS_IO_ALERT | FILE_SYNCHRONOUS_IO_NONALERT;
constexpr ULONG FileObjectAlertable = 0x00000004;
constexpr ULONG DispositionShift = 24;

// What the I/O manager refuses before any driver sees the request.
NTSTATUS CheckOptions(const OpenRequest& request)
{
    const ULONG options = request.Options;
    const ULONG synchronous = options & SynchronousOptions;
    const bool waitsForNothing = synchronous != 0 && !(MapFileAccess(request.DesiredAccess) & SYNCHRONIZE);
    const bool deletesUnasked = options & FILE_DELETE_ON_CLOSE && !(request.DesiredAccess & (DELETE | GENERIC_ALL));
    const bool destroysDirectory = options & FILE_DIRECTORY_FILE && request.Disposition != FILE_OPEN &&
                                   request.Disposition != FILE_CREATE && request.Disposition != FILE_OPEN_IF;
    const bool bothKinds = options & FILE_DIRECTORY_FILE && options & FILE_NON_DIRECTORY_FILE;
    if (request.Disposition > FILE_OVERWRITE_IF || options >> DispositionShift != 0 || waitsForNothing ||
        synchronous == SynchronousOptions || deletesUnasked || destroysDirectory || bothKinds)
    {
        return STATUS_INVALID_PARAMETER;
    }
    return STATUS_SUCCESS;
}

ULONG FlagsFor(const OpenRequest& request)
{
    ULONG flags = request.FileObjectFlags;
    flags |= request.Options & SynchronousOptions ? FO_SYNCHRONOUS_IO : 0;
    flags |= request.Options & FILE_SYNCHRONOUS_IO_ALERT ? FileObjectAlertable : 0;
    flags |= request.Options & FILE_NO_INTERMEDIATE_BUFFERING ? FO_NO_INTERMEDIATE_BUFFERING : 0;
    flags |= request.Options & FILE_WRITE_THROUGH ? FO_WRITE_THROUGH : 0;
    flags |= request.Options & FILE_SEQUENTIAL_ONLY ? FO_SEQUENTIAL_ONLY : 0;
    return flags;
}

// The device that the request leads to, referenced, and the name that is left for its file system.
NTSTATUS FindTarget(const OpenRequest& request, PDEVICE_OBJECT* device, WideString* name)
{
    if (request.Root != nullptr)
    {
        *device = request.Root->DeviceObject;
        *name = request.Path;
        ReferenceObject(*device);
        return STATUS_SUCCESS;
    }
    void* body;
    const NTSTATUS status = LookupObject(request.Path, &body, name);
    if (!NT_SUCCESS(status))
    {
        return status;
    }
    if (&TypeOf(body) != &DeviceType)
    {
        DereferenceObject(body);
        return STATUS_OBJECT_TYPE_MISMATCH;
    }
    *device = static_cast<PDEVICE_OBJECT>(body);
    return STATUS_SUCCESS;
}

WideView IdAsName(const ULONGLONG& fileId)
{
    return {reinterpret_cast<const WCHAR*>(&fileId), sizeof fileId / sizeof(WCHAR)};
}

PFILE_OBJECT PrepareFileObject(const OpenRequest& request, PDEVICE_OBJECT device, const WideString& name)
{
    const bool byId = request.Options & FILE_OPEN_BY_FILE_ID;
    const ACCESS_MASK granted = MapFileAccess(request.DesiredAccess);
    const PFILE_OBJECT file =
        NewFileObject(device, byId ? IdAsName(request.FileId) : WideView(name), granted, request.Mode);
    file->Flags = FlagsFor(request);
    file->RelatedFileObject = request.Root;
    const bool belowVolume = request.Root == nullptr || request.Root->Flags & FO_VOLUME_OPEN;
    if (StateOf(file)->Target != nullptr && file->FileName.Length == 0 && belowVolume)
    {
        file->Flags |= FO_VOLUME_OPEN;
    }
    return file;
}

NTSTATUS SendCreate(const OpenRequest& request, PFILE_OBJECT file, IO_STATUS_BLOCK* status)
{
    CreateSecurity security{nullptr, nullptr, StateOf(file)->Granted, request.Options};
    FileRequest create = NewFileRequest(file, IRP_MJ_CREATE, IRP_CREATE_OPERATION | IRP_SYNCHRONOUS_API);
    create.Parameters.OperationFlags = request.StackFlags;
    auto& parameters = create.Parameters.Parameters.Create;
    parameters.SecurityContext = &security;
    parameters.Options = request.Disposition << DispositionShift | request.Options;
    parameters.FileAttributes = static_cast<USHORT>(request.FileAttributes);
    parameters.ShareAccess = static_cast<USHORT>(request.ShareAccess);
    parameters.EaBuffer = const_cast<void*>(request.Ea);
    parameters.EaLength = request.EaLength;
    return SendFileRequest(create, status);
}
}

NTSTATUS OpenFile(const OpenRequest& request, PFILE_OBJECT* fileObject, ULONG_PTR* information)
{
    RequireIrql(PASSIVE_LEVEL, "OpenFile");
    *fileObject = nullptr;
    NTSTATUS status = CheckOptions(request);
    if (!NT_SUCCESS(status))
    {
        return status;
    }
    PDEVICE_OBJECT device;
    WideString name;
    status = FindTarget(request, &device, &name);
    if (!NT_SUCCESS(status))
    {
        return status;
    }
    const PFILE_OBJECT file = PrepareFileObject(request, device, name);
    DereferenceObject(device);

    IO_STATUS_BLOCK result{};
    if (StateOf(file)->Target != nullptr)
    {
        status = SendCreate(request, file, &result);
    }
    else
    {
        status = SendDeviceCreate(device, file);
        result.Information = FILE_OPENED;
    }
    // What the name was relative to counts only while the create is under way.
    file->RelatedFileObject = nullptr;
    if (!NT_SUCCESS(status))
    {
        DereferenceObject(file);
        return status;
    }
    StateOf(file)->Opened = true;
    *fileObject = file;
    if (information != nullptr)
    {
        *information = result.Information;
    }
    return status;
}

void CloseFile(PFILE_OBJECT fileObject)
{
    RequireIrql(PASSIVE_LEVEL, "CloseFile");
    FileType.LastHandleClosed(fileObject);
    DereferenceObject(fileObject);
}
}
