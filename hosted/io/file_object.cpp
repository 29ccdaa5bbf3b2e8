#include "hosted/io/file_object.h"

#include "hosted/io/device.h"
#include "hosted/io/volume_registry.h"
#include "hosted/ke/bug_check.h"
#include "hosted/ke/irql.h"

namespace hosted
{
namespace
{
constexpr CSHORT IoTypeFile = 5;
constexpr ACCESS_MASK FileReadExtendedAttributes = 0x0008;
constexpr ACCESS_MASK FileWriteExtendedAttributes = 0x0010;

void SendPlain(PFILE_OBJECT file, UCHAR majorFunction, ULONG irpFlags)
{
    IO_STATUS_BLOCK status{};
    FileRequest request = NewFileRequest(file, majorFunction, irpFlags);
    SendFileRequest(request, &status);
}

// The last handle is gone: the file system gives up locks, shares and pending deletions. A file is cleaned up once.
void CleanUpFile(void* body)
{
    const auto file = static_cast<PFILE_OBJECT>(body);
    FileState* state = StateOf(file);
    if (state == nullptr || !state->Opened)
    {
        return;
    }
    if (state->CleanedUp.exchange(true))
    {
        BugCheck("FILE_CLEANED_UP_TWICE", "the last handle of a file object was closed a second time");
    }
    if (state->Target == nullptr)
    {
        SendDeviceCleanup(state->Held, file);
        return;
    }
    SendPlain(file, IRP_MJ_CLEANUP, IRP_SYNCHRONOUS_API);
}

void DeleteFileObject(void* body)
{
    const auto file = static_cast<PFILE_OBJECT>(body);
    FileState* state = StateOf(file);
    if (state == nullptr)
    {
        return;
    }
    if (state->Opened)
    {
        RequireIrql(APC_LEVEL, "closing a file object");
        if (!state->CleanedUp)
        {
            CleanUpFile(file);
        }
        if (state->Target == nullptr)
        {
            SendDeviceClose(state->Held, file);
        }
        else
        {
            SendPlain(file, IRP_MJ_CLOSE, IRP_CLOSE_OPERATION | IRP_SYNCHRONOUS_API);
        }
    }
    if (state->Target != nullptr)
    {
        CountOpenFile(state->Target, -1);
    }
    const PDEVICE_OBJECT device = state->Held;
    file->FileObjectExtension = nullptr;
    delete state;
    DereferenceObject(device);
}
}

const ObjectType FileType = {"File", CleanUpFile, DeleteFileObject};

PFILE_OBJECT NewFileObject(PDEVICE_OBJECT device, WideView name, ACCESS_MASK granted, KPROCESSOR_MODE mode)
{
    const auto file = static_cast<PFILE_OBJECT>(CreateObject(FileType, sizeof(FILE_OBJECT)));
    auto* state = new FileState{};
    state->Target = VolumeOf(device);
    state->Held = device;
    state->Name = WideString(name);
    state->Granted = granted;
    state->Mode = mode;
    ReferenceObject(device);
    if (state->Target != nullptr)
    {
        CountOpenFile(state->Target, 1);
    }

    file->Type = IoTypeFile;
    file->Size = sizeof(FILE_OBJECT);
    file->DeviceObject = device;
    file->Vpb = state->Target != nullptr ? state->Target->Vpb : nullptr;
    file->FileObjectExtension = state;
    file->FileName = Counted(state->Name);
    if (state->Name.empty())
    {
        file->FileName = UNICODE_STRING{};
    }
    file->IrpList.Flink = file->IrpList.Blink = &file->IrpList;
    return file;
}

FileState* StateOf(PFILE_OBJECT file)
{
    return static_cast<FileState*>(file->FileObjectExtension);
}

Volume* VolumeOfFile(PFILE_OBJECT file)
{
    const FileState* state = StateOf(file);
    return state != nullptr ? state->Target : VolumeOf(file->DeviceObject);
}

ACCESS_MASK MapFileAccess(ACCESS_MASK desired)
{
    constexpr ACCESS_MASK Read =
        READ_CONTROL | SYNCHRONIZE | FILE_READ_DATA | FILE_READ_ATTRIBUTES | FileReadExtendedAttributes;
    constexpr ACCESS_MASK Write = READ_CONTROL | SYNCHRONIZE | FILE_WRITE_DATA | FILE_APPEND_DATA |
                                  FILE_WRITE_ATTRIBUTES | FileWriteExtendedAttributes;
    constexpr ACCESS_MASK Execute = READ_CONTROL | SYNCHRONIZE | FILE_EXECUTE | FILE_READ_ATTRIBUTES;
    ACCESS_MASK mapped = desired & ~(GENERIC_READ | GENERIC_WRITE | GENERIC_EXECUTE | GENERIC_ALL);
    mapped |= desired & GENERIC_READ ? Read : 0;
    mapped |= desired & GENERIC_WRITE ? Write : 0;
    mapped |= desired & GENERIC_EXECUTE ? Execute : 0;
    mapped |= desired & GENERIC_ALL ? FILE_ALL_ACCESS : 0;
    return mapped;
}
}
