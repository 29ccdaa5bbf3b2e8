#include "hosted/ps/process_create.h"

#include "hosted/io/file.h"
#include "hosted/ke/irql.h"
#include "hosted/ps/process_notify.h"
#include "hosted/ps/process_table.h"

namespace host
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

NTSTATUS AnnounceProcess(Process* process, const ProcessParameters& parameters, PFILE_OBJECT image)
{
    const WideString commandLine =
        parameters.CommandLine.empty() ? L'"' + parameters.ImagePath + L'"' : parameters.CommandLine;
    const UNICODE_STRING imageName = Counted(parameters.ImagePath);
    const UNICODE_STRING command = Counted(commandLine);
    PS_CREATE_NOTIFY_INFO information{};
    information.Size = sizeof(information);
    information.FileOpenNameAvailable = parameters.NameAvailable ? 1 : 0;
    information.ParentProcessId = process->ParentId;
    information.CreatingThreadId = {CurrentProcess()->Id, CurrentThread()->Id};
    information.FileObject = image;
    information.ImageFileName = &imageName;
    information.CommandLine = &command;
    information.CreationStatus = STATUS_SUCCESS;
    NotifyProcessCreated(process, information);
    return information.CreationStatus;
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
