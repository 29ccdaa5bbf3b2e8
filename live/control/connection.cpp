#include "live/control/connection.h"

#include "hosted/ke/event.h"
#include "hosted/ke/system_model.h"
#include "hosted/ob/object.h"

#include <utility>

namespace hosted
{
using control_socket::Kind;
using control_socket::Result;
using control_socket::Woken;

namespace
{
std::vector<std::uint8_t> Refusal(Result result, std::string_view why)
{
    return control_socket::Writer().Word(static_cast<std::uint32_t>(result)).Text(why).Bytes();
}

control_socket::Writer Done()
{
    return control_socket::Writer().Word(static_cast<std::uint32_t>(Result::Done));
}

std::vector<std::uint8_t> Malformed()
{
    return Refusal(Result::Malformed, "the message's length does not fit its kind");
}

std::string SystemText()
{
    return std::to_string(Model().MajorVersion) + "." + std::to_string(Model().MinorVersion);
}
}

ControlConnection::ControlConnection(
    FrameChannel channel, pid_t peer, Process* process, const ControlServerOptions& options, UserBuffers& buffers)
    : channel_(std::move(channel)), peer_(peer), process_(process), options_(options), buffers_(buffers)
{
}

ControlConnection::~ControlConnection()
{
    if (process_ != nullptr)
    {
        DereferenceObject(process_);
    }
}

void ControlConnection::Serve()
{
    for (;;)
    {
        ControlFrame frame;
        const FrameChannel::Arrival arrival = channel_.Read(&frame);
        Answer answer;
        switch (arrival)
        {
        case FrameChannel::Arrival::Gone:
            return;
        case FrameChannel::Arrival::NoHeader:
            answer = Refusal(Result::Malformed, "this is no message of the control socket");
            break;
        case FrameChannel::Arrival::TooLong:
            answer = Refusal(Result::TooLong, "the message is too long");
            break;
        case FrameChannel::Arrival::Whole:
            answer = Handle(static_cast<Kind>(frame.Header.Kind), frame.Body);
            if (!frame.Body.empty())
            {
                // A key may have been in it.
                explicit_bzero(frame.Body.data(), frame.Body.size());
            }
            break;
        }
        const bool sent = !answer.empty() &&
                          channel_.Write(frame.Header.Kind | control_socket::AnswerBit, frame.Header.Number, answer);
        // Where the next message would begin is not known when this one was none.
        if (!sent || arrival != FrameChannel::Arrival::Whole)
        {
            return;
        }
    }
}

ControlConnection::Answer ControlConnection::Handle(Kind kind, Body body)
{
    if (kind == Kind::Hello)
    {
        return Greet(body);
    }
    if (kind < Kind::Hello || kind > Kind::CloseMailslot)
    {
        return Refusal(Result::UnknownKind, "the message's kind is not known");
    }
    if (program_ == nullptr)
    {
        return Refusal(Result::NotGreeted, "the first message must be the greeting");
    }
    if (kind == Kind::DeviceControl)
    {
        return DeviceControl(body);
    }
    if (kind == Kind::WaitForEvent)
    {
        return WaitForEvent(body);
    }
    if (!body.empty())
    {
        return Malformed();
    }
    switch (kind)
    {
    case Kind::CreateEvent:
        return CreateEvent();
    case Kind::CreateMailslot:
        return Done().Word(static_cast<std::uint32_t>(program_->CreateMailslot())).Bytes();
    case Kind::ReadMailslot:
        return ReadMailslot();
    case Kind::CloseMailslot:
        program_->CloseMailslot();
        return Done().Bytes();
    default:
        // The wait that this ends has ended already.
        return Done().Bytes();
    }
}

ControlConnection::Answer ControlConnection::Greet(Body body)
{
    control_socket::Reader reader(body);
    const std::uint32_t version = reader.Word();
    if (!reader.Ended())
    {
        return Malformed();
    }
    if (version != control_socket::Version)
    {
        return Refusal(Result::WrongVersion, "this host speaks version " + std::to_string(control_socket::Version));
    }
    if (program_ == nullptr)
    {
        if (process_ == nullptr)
        {
            return Refusal(Result::Refused, "process " + std::to_string(peer_) + " is not known to the hosted system");
        }
        program_ = std::make_unique<ClientProgram>(std::exchange(process_, nullptr), buffers_);
    }
    control_socket::Writer writer = Done();
    writer.Word(control_socket::Version)
        .Word(static_cast<std::uint32_t>(program_->Probe()))
        .Text(SystemText())
        .Text(options_.DriverText)
        .Word(static_cast<std::uint32_t>(options_.Volumes.size()));
    for (const VolumeText& volume : options_.Volumes)
    {
        writer.Text(volume.Drive).Text(volume.Device).Text(volume.Folder).Text(volume.MountPoint);
    }
    return writer.Bytes();
}

ControlConnection::Answer ControlConnection::DeviceControl(Body body)
{
    control_socket::Reader reader(body);
    const ULONG code = reader.Word();
    const ULONG outputSize = reader.Word();
    const Body input = reader.Rest();
    if (!reader.Ended())
    {
        return Malformed();
    }
    if (input.size() > control_socket::MostBufferBytes || outputSize > control_socket::MostBufferBytes)
    {
        return Refusal(Result::TooLong, "the buffer is too long");
    }
    const ControlOutcome outcome = program_->DeviceControl(code, input, outputSize);
    if (!NT_SUCCESS(outcome.Opened))
    {
        return Refusal(Result::NoDriver, "the driver's control device is not there");
    }
    return Done()
        .Word(static_cast<std::uint32_t>(outcome.Status))
        .Word(outcome.Information)
        .Rest({reinterpret_cast<const std::uint8_t*>(outcome.Output.data()), outcome.Output.size()})
        .Bytes();
}

ControlConnection::Answer ControlConnection::CreateEvent()
{
    const HANDLE handle = program_->CreateEvent();
    return handle == nullptr ? Refusal(Result::TooMany, "the host is short of descriptors")
                             : Done().Long(reinterpret_cast<ULONG_PTR>(handle)).Bytes();
}

ControlConnection::Answer ControlConnection::WaitForEvent(Body body)
{
    control_socket::Reader reader(body);
    const std::uint32_t milliseconds = reader.Word();
    if (!reader.Ended())
    {
        return Malformed();
    }
    if (program_->Event() == nullptr)
    {
        return Refusal(Result::Missing, "there is no event to wait for");
    }
    FrameChannel::Deadline deadline;
    if (milliseconds != control_socket::WaitForever)
    {
        deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(milliseconds);
    }
    for (;;)
    {
        // Takes the signal away. The descriptor only tells when to look: it may have counted signals that were seen.
        if (hosted::WaitForEvent(program_->Event(), 0))
        {
            return Done().Word(static_cast<std::uint32_t>(Woken::Signalled)).Bytes();
        }
        if (milliseconds == 0)
        {
            return Done().Word(static_cast<std::uint32_t>(Woken::TimedOut)).Bytes();
        }
        switch (channel_.WaitFor(program_->EventDescriptor(), deadline))
        {
        case FrameChannel::Event::Signalled:
            break;
        case FrameChannel::Event::TimedOut:
            return Done().Word(static_cast<std::uint32_t>(Woken::TimedOut)).Bytes();
        case FrameChannel::Event::Request:
            return Done().Word(static_cast<std::uint32_t>(Woken::Ended)).Bytes();
        case FrameChannel::Event::Gone:
            return {};
        }
    }
}

ControlConnection::Answer ControlConnection::ReadMailslot()
{
    if (program_->Mailslot() == nullptr)
    {
        return Refusal(Result::Missing, "there is no mailslot");
    }
    const std::optional<std::vector<UCHAR>> message = program_->Mailslot()->Read();
    control_socket::Writer writer = Done();
    writer.Word(message ? 1 : 0);
    if (message)
    {
        writer.Rest(*message);
    }
    return writer.Bytes();
}
}
