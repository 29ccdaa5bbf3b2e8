#include "hosted/machine/process_create.h"

#include "hosted/io/file_object.h"
#include "hosted/ke/irql.h"
#include "hosted/ob/name_space.h"
#include "hosted/ps/process_notify.h"
#include "hosted/ps/process_table.h"

namespace hosted
{
namespace
{
WideView LastComponent(WideView path)
{
    const size_t separator = path.rfind(L'\\');
    return separator == WideView::npos ? path : path.substr(separator + 1);
}

// The path under which the system knows the image: the volume's device and what was opened below it.
WideString DevicePath(PFILE_OBJECT image)
{
    const Volume* volume = VolumeOf(image->DeviceObject);
    WideString path = volume == nullptr ? WideString() : volume->DeviceName;
    path += View(image->FileName);
    return path;
}

NTSTATUS OpenImage(const WideString& path, PFILE_OBJECT* image)
{
    OpenRequest request;
    request.Path = path;
    request.DesiredAccess = FILE_EXECUTE | SYNCHRONIZE;
    request.ShareAccess = FILE_SHARE_READ | FILE_SHARE_DELETE;
    request.Options = FILE_SYNCHRONOUS_IO_NONALERT | FILE_NON_DIRECTORY_FILE;
    return OpenFile(request, image);
}

PS_CREATE_NOTIFY_INFO CreationOf(const Process* process, PFILE_OBJECT image, const UNICODE_STRING* imageName)
{
    PS_CREATE_NOTIFY_INFO information{};
    information.Size = sizeof(information);
    information.ParentProcessId = process->ParentId;
    information.CreatingThreadId = {CurrentProcess()->Id, CurrentThread()->Id};
    information.FileObject = image;
    information.ImageFileName = imageName;
    information.CreationStatus = STATUS_SUCCESS;
    return information;
}

NTSTATUS AnnounceProcess(Process* process, const ProcessParameters& parameters, PFILE_OBJECT image)
{
    const WideString commandLine =
        parameters.CommandLine.empty() ? L'"' + parameters.ImagePath + L'"' : parameters.CommandLine;
    const UNICODE_STRING imageName = Counted(parameters.ImagePath);
    const UNICODE_STRING command = Counted(commandLine);
    PS_CREATE_NOTIFY_INFO information = CreationOf(process, image, &imageName);
    information.FileOpenNameAvailable = parameters.NameAvailable ? 1 : 0;
    information.CommandLine = &command;
    NotifyProcessCreated(process, information);
    return information.CreationStatus;
}

// A file object, never opened, that names the image on its volume; null when the path leads to none.
PFILE_OBJECT NameImage(const WideString& path)
{
    void* body;
    WideString name;
    if (!NT_SUCCESS(LookupObject(path, &body, &name)))
    {
        return nullptr;
    }
    PFILE_OBJECT image = nullptr;
    if (&TypeOf(body) == &DeviceType && VolumeOf(static_cast<PDEVICE_OBJECT>(body)) != nullptr)
    {
        image = NewFileObject(static_cast<PDEVICE_OBJECT>(body), name, FILE_EXECUTE, KernelMode);
    }
    DereferenceObject(body);
    return image;
}
}

NTSTATUS CreateProcess(const ProcessParameters& parameters, Process** process)
{
    RequireIrql(PASSIVE_LEVEL, "CreateProcess");
    *process = nullptr;
    PFILE_OBJECT image = nullptr;
    NTSTATUS status = OpenImage(parameters.ImagePath, &image);
    if (!NT_SUCCESS(status))
    {
        return status;
    }
    const HANDLE id = parameters.Id != nullptr ? parameters.Id : AllocateProcessId();
    const HANDLE parent = parameters.ParentId != nullptr ? parameters.ParentId : CurrentProcess()->Id;
    Process* created = CreateProcessObject(id, parent, DevicePath(image), LastComponent(parameters.ImagePath));
    InsertProcess(created);
    status = AnnounceProcess(created, parameters, image);
    CloseFile(image);
    if (!NT_SUCCESS(status))
    {
        ExitProcess(created);
        DereferenceObject(created);
        return status;
    }
    *process = created;
    return STATUS_SUCCESS;
}

Process* AdoptProcess(const AdoptedProcess& adopted)
{
    RequireIrql(PASSIVE_LEVEL, "AdoptProcess");
    Process* process =
        CreateProcessObject(adopted.Id, adopted.ParentId, adopted.ImagePath, LastComponent(adopted.ImagePath));
    process->CreateTime = adopted.CreateTime;
    InsertProcess(process);
    const PFILE_OBJECT image = NameImage(adopted.ImagePath);
    const UNICODE_STRING imageName = Counted(adopted.ImagePath);
    PS_CREATE_NOTIFY_INFO information = CreationOf(process, image, &imageName);
    information.IsSubsystemProcess = image == nullptr ? 1 : 0;
    NotifyProcessCreated(process, information);
    if (image != nullptr)
    {
        DereferenceObject(image);
    }
    return process;
}

void ExitProcess(Process* process, const std::function<void()>& closeResources)
{
    const AttachedProcess attached(process);
    NotifyProcessExited(process);
    if (closeResources)
    {
        closeResources();
    }
    process->Handles.CloseAll();
    RemoveProcess(process);
}
}
