// A program at the other end of a connection as the hosted system sees it: a process that makes requests, with an event
// and a mailslot.
#pragma once

#include "hosted/io/mailslot.h"
#include "hosted/ke/event.h"
#include "common/descriptor.h"
#include "hosted/machine/user_buffers.h"
#include "hosted/ps/process.h"

#include <span>

namespace hosted
{
using common::Descriptor;

struct ControlOutcome
{
    // How the control device opened; nothing was asked of the driver when it did not.
    NTSTATUS Opened = STATUS_SUCCESS;
    NTSTATUS Status = STATUS_SUCCESS;
    ULONG Information = 0;
    // What the whole output buffer holds afterwards, whatever the byte count says. It was zeros before.
    std::string Output;
};

// Used by one thread. Everything is done as the process, and given back at the end.
class ClientProgram
{
public:
    // Takes over the reference to the process. `buffers` outlives the object.
    ClientProgram(Process* process, UserBuffers& buffers);
    ~ClientProgram();
    ClientProgram(const ClientProgram&) = delete;
    ClientProgram& operator=(const ClientProgram&) = delete;

    // Whether the driver's control device can be opened.
    NTSTATUS Probe() const;
    ControlOutcome DeviceControl(ULONG code, std::span<const UCHAR> input, ULONG outputSize) const;

    // The program's log event, made at the first call; its handle. Null when the host is short of descriptors.
    HANDLE CreateEvent();
    // The event, once made, and an eventfd that its signals add to; null and -1 before.
    PKEVENT Event() const { return event_; }
    int EventDescriptor() const { return signal_.Get(); }

    // STATUS_OBJECT_NAME_COLLISION when somebody has it already, this program too.
    NTSTATUS CreateMailslot();
    MailslotReader* Mailslot() const { return mailslot_.get(); }
    void CloseMailslot();

private:
    Process* const process_; // referenced
    UserBuffers& buffers_;
    HANDLE handle_ = nullptr;
    PKEVENT event_ = nullptr; // referenced
    Descriptor signal_;
    std::unique_ptr<EventObserver> observer_;
    std::unique_ptr<MailslotReader> mailslot_;
};
}
