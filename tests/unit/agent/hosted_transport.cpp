#include "tests/unit/agent/hosted_transport.h"

#include "agent/tarnctl/failure.h"
#include "agent/tarnctl/status_names.h"

#include <algorithm>
#include <cstring>

namespace tarnctl_test
{
using namespace hosted;

namespace
{
constexpr WideView MailslotPath = L"\\Device\\Mailslot\\OrvaneSandbox_Dbg";

class HostedMailslot : public tarnctl::Mailslot
{
public:
    explicit HostedMailslot(std::unique_ptr<MailslotReader> reader) : reader_(std::move(reader)) {}

    std::optional<std::u16string> Read() override
    {
        const std::optional<std::vector<UCHAR>> message = reader_->Read();
        if (!message)
        {
            return std::nullopt;
        }
        std::u16string text(message->size() / sizeof(char16_t), u'\0');
        std::memcpy(text.data(), message->data(), text.size() * sizeof(char16_t));
        return text;
    }

private:
    std::unique_ptr<MailslotReader> reader_;
};

class HostedTransport : public tarnctl::Transport
{
public:
    explicit HostedTransport(const Program& program) : program_(program) {}

    tarnctl::Reply Send(
        std::uint32_t code, std::span<const std::uint8_t> input, std::span<std::uint8_t> output) override
    {
        const ControlResult result = program_.DeviceControl(
            code, {reinterpret_cast<const char*>(input.data()), input.size()}, static_cast<ULONG>(output.size()));
        std::copy_n(result.Output.begin(), std::min(output.size(), result.Output.size()), output.begin());
        return {static_cast<std::uint32_t>(result.Status), static_cast<std::uint32_t>(result.Information)};
    }

    std::uint64_t CreateLogEvent() override
    {
        if (!event_)
        {
            event_.emplace(program_.CreateEvent());
        }
        return reinterpret_cast<std::uintptr_t>(event_->Handle());
    }

    tarnctl::Wake WaitForLogEvent(Longest longest) override
    {
        const bool signalled = event_->Wait(longest ? static_cast<unsigned>(longest->count()) : ~0u);
        return signalled ? tarnctl::Wake::Signalled : tarnctl::Wake::TimedOut;
    }

    std::unique_ptr<tarnctl::Mailslot> CreateDebugMailslot() override
    {
        std::unique_ptr<MailslotReader> reader;
        const NTSTATUS status = MailslotReader::Create(MailslotPath, 0, &reader);
        if (!NT_SUCCESS(status))
        {
            throw tarnctl::Failure(tarnctl::ExitCode::Trouble,
                "the debug mailslot cannot be made: " + tarnctl::StatusText(static_cast<std::uint32_t>(status)));
        }
        return std::make_unique<HostedMailslot>(std::move(reader));
    }

private:
    Program program_;
    std::optional<ProgramEvent> event_;
};

class WaitingTransport : public tarnctl::Transport
{
public:
    WaitingTransport(Waiting waiting, std::unique_ptr<tarnctl::Transport> way)
        : waiting_(std::move(waiting)), way_(std::move(way))
    {
    }

    tarnctl::Reply Send(
        std::uint32_t code, std::span<const std::uint8_t> input, std::span<std::uint8_t> output) override
    {
        return way_->Send(code, input, output);
    }
    std::uint64_t CreateLogEvent() override { return way_->CreateLogEvent(); }
    tarnctl::Wake WaitForLogEvent(Longest longest) override { return waiting_(*way_, longest); }
    std::optional<tarnctl::LiveDescription> Describe() override { return way_->Describe(); }
    std::unique_ptr<tarnctl::Mailslot> CreateDebugMailslot() override { return way_->CreateDebugMailslot(); }

private:
    Waiting waiting_;
    std::unique_ptr<tarnctl::Transport> way_;
};
}

tarnctl::Wake SignalledOrInterrupted(tarnctl::Transport& way, Longest)
{
    const tarnctl::Wake wake = way.WaitForLogEvent(std::chrono::milliseconds(0));
    return wake == tarnctl::Wake::TimedOut ? tarnctl::Wake::Interrupted : wake;
}

std::unique_ptr<tarnctl::Transport> ConnectInMachine(const Program& program)
{
    const ProgramFile device = program.Open(L"\\??\\Tarnveil", FILE_READ_DATA | FILE_WRITE_DATA | SYNCHRONIZE);
    if (!device.IsOpen())
    {
        throw tarnctl::Failure(tarnctl::ExitCode::NotReachable,
            "driver not reachable: " + tarnctl::StatusText(static_cast<std::uint32_t>(device.Status())));
    }
    return std::make_unique<HostedTransport>(program);
}

std::unique_ptr<tarnctl::Transport> WaitingBy(Waiting waiting, std::unique_ptr<tarnctl::Transport> way)
{
    return std::make_unique<WaitingTransport>(std::move(waiting), std::move(way));
}
}
