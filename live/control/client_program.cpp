#include "live/control/client_program.h"

#include "hosted/io/device_control.h"
#include "hosted/io/file.h"
#include "hosted/machine/control_device.h"

#include <sys/eventfd.h>

namespace hosted
{
namespace
{
constexpr WideView DebugMailslotPath = L"\\Device\\Mailslot\\OrvaneSandbox_Dbg";
// Longer than the longest line and short enough for a message of the socket.
constexpr ULONG MostMailslotBytes = 256 * 1024;
}

ClientProgram::ClientProgram(Process* process, UserBuffers& buffers) : process_(process), buffers_(buffers) {}

ClientProgram::~ClientProgram()
{
    {
        const AttachedProcess attached(process_);
        mailslot_.reset();
        observer_.reset();
        if (event_ != nullptr)
        {
            // A process that has exited lost the handle then.
            process_->Handles.Close(handle_);
            DereferenceObject(event_);
        }
    }
    DereferenceObject(process_);
}

NTSTATUS ClientProgram::Probe() const
{
    const AttachedProcess attached(process_);
    PFILE_OBJECT device = nullptr;
    const NTSTATUS status = OpenControlDevice(&device);
    if (NT_SUCCESS(status))
    {
        CloseFile(device);
    }
    return status;
}

ControlOutcome ClientProgram::DeviceControl(ULONG code, std::span<const UCHAR> input, ULONG outputSize) const
{
    const AttachedProcess attached(process_);
    ControlOutcome outcome;
    PFILE_OBJECT device = nullptr;
    // Not kept open, so that a connection never keeps the driver from being unloaded.
    outcome.Opened = OpenControlDevice(&device);
    if (!NT_SUCCESS(outcome.Opened))
    {
        return outcome;
    }
    {
        UserBuffer inputBuffer(buffers_, input.size(), 0);
        inputBuffer.Set({reinterpret_cast<const char*>(input.data()), input.size()});
        UserBuffer outputBuffer(buffers_, outputSize, 0);
        DeviceControlRequest request;
        request.Code = code;
        request.Input = input.empty() ? nullptr : inputBuffer.Address();
        request.InputLength = static_cast<ULONG>(input.size());
        request.Output = outputSize == 0 ? nullptr : outputBuffer.Address();
        request.OutputLength = outputSize;
        IO_STATUS_BLOCK status{};
        outcome.Status = hosted::DeviceControl(device, request, &status);
        outcome.Information = static_cast<ULONG>(status.Information);
        outcome.Output = outputBuffer.Content();
        // Keys pass through here, and the memory serves other programs next.
        inputBuffer.Set(std::string(input.size(), '\0'));
    }
    CloseFile(device);
    return outcome;
}

HANDLE ClientProgram::CreateEvent()
{
    if (event_ != nullptr)
    {
        return handle_;
    }
    signal_ = Descriptor(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!signal_)
    {
        return nullptr;
    }
    // The process may exit at any moment, and its handles with it: hence a reference of this object's own, taken while
    // no one else knows the handle.
    event_ = static_cast<PKEVENT>(CreateObject(EventType, sizeof(KEVENT)));
    KeInitializeEvent(event_, SynchronizationEvent, FALSE);
    handle_ = process_->Handles.Insert(event_, EVENT_ALL_ACCESS);
    observer_ = std::make_unique<EventObserver>(event_, signal_.Get());
    return handle_;
}

NTSTATUS ClientProgram::CreateMailslot()
{
    const AttachedProcess attached(process_);
    return mailslot_ == nullptr ? MailslotReader::Create(DebugMailslotPath, MostMailslotBytes, &mailslot_)
                                : STATUS_OBJECT_NAME_COLLISION;
}

void ClientProgram::CloseMailslot()
{
    mailslot_.reset();
}
}
