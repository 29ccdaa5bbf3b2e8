#include "agent/tarnctl/windows_transport.h"

#include "agent/tarnctl/windows_error.h"

#include <windows.h>
#include <winternl.h>

#include <utility>

namespace tarnctl
{
namespace
{
constexpr const wchar_t* DevicePath = L"\\\\.\\Tarnveil";
constexpr const wchar_t* MailslotPath = L"\\\\.\\mailslot\\OrvaneSandbox_Dbg";

class Handle
{
public:
    explicit Handle(HANDLE value = nullptr) : value_(value == INVALID_HANDLE_VALUE ? nullptr : value) {}
    ~Handle()
    {
        if (value_ != nullptr)
        {
            CloseHandle(value_);
        }
    }
    Handle(Handle&& other) noexcept : value_(std::exchange(other.value_, nullptr)) {}
    Handle& operator=(Handle&& other) noexcept
    {
        std::swap(value_, other.value_);
        return *this;
    }

    HANDLE Get() const { return value_; }
    explicit operator bool() const { return value_ != nullptr; }

private:
    HANDLE value_;
};

// Set by Ctrl-C and the like; one per program, since the handler has no argument.
HANDLE Interruption = nullptr;

BOOL WINAPI Interrupt(DWORD)
{
    SetEvent(Interruption);
    return TRUE;
}

class WindowsMailslot : public Mailslot
{
public:
    explicit WindowsMailslot(Handle slot) : slot_(std::move(slot)) {}

    std::optional<std::u16string> Read() override
    {
        DWORD next = 0;
        if (!GetMailslotInfo(slot_.Get(), nullptr, &next, nullptr, nullptr))
        {
            FailWithLastError(ExitCode::Trouble, "the debug mailslot");
        }
        if (next == MAILSLOT_NO_MESSAGE)
        {
            return std::nullopt;
        }
        std::u16string text((next + 1) / sizeof(char16_t), u'\0');
        DWORD bytes = 0;
        if (!ReadFile(slot_.Get(), text.data(), static_cast<DWORD>(text.size() * sizeof(char16_t)), &bytes, nullptr))
        {
            FailWithLastError(ExitCode::Trouble, "the debug mailslot");
        }
        text.resize(bytes / sizeof(char16_t));
        return text;
    }

private:
    Handle slot_;
};

class WindowsTransport : public Transport
{
public:
    explicit WindowsTransport(Handle device) : device_(std::move(device)) {}
    ~WindowsTransport() override
    {
        if (Interruption != nullptr)
        {
            SetConsoleCtrlHandler(Interrupt, FALSE);
            CloseHandle(std::exchange(Interruption, nullptr));
        }
    }

    Reply Send(std::uint32_t code, std::span<const std::uint8_t> input, std::span<std::uint8_t> output) override
    {
        IO_STATUS_BLOCK result = {};
        // The system call itself: DeviceIoControl would turn the status into one of fewer error numbers. The device was
        // opened for synchronous requests, so the answer is there on return.
        const NTSTATUS status = NtDeviceIoControlFile(device_.Get(), nullptr, nullptr, nullptr, &result, code,
            input.empty() ? nullptr : const_cast<std::uint8_t*>(input.data()), static_cast<ULONG>(input.size()),
            output.empty() ? nullptr : output.data(), static_cast<ULONG>(output.size()));
        return {static_cast<std::uint32_t>(status), static_cast<std::uint32_t>(result.Information)};
    }

    std::uint64_t CreateLogEvent() override
    {
        if (!logEvent_)
        {
            logEvent_ = Handle(CreateEventW(nullptr, FALSE, FALSE, nullptr));
            Interruption = CreateEventW(nullptr, TRUE, FALSE, nullptr);
            if (!logEvent_ || Interruption == nullptr || !SetConsoleCtrlHandler(Interrupt, TRUE))
            {
                FailWithLastError(ExitCode::Trouble, "the log event");
            }
        }
        return reinterpret_cast<std::uintptr_t>(logEvent_.Get());
    }

    Wake WaitForLogEvent(std::optional<std::chrono::milliseconds> longest) override
    {
        const HANDLE handles[] = {Interruption, logEvent_.Get()};
        const DWORD time = longest ? static_cast<DWORD>(longest->count()) : INFINITE;
        switch (WaitForMultipleObjects(2, handles, FALSE, time))
        {
        case WAIT_OBJECT_0:
            return Wake::Interrupted;
        case WAIT_OBJECT_0 + 1:
            return Wake::Signalled;
        case WAIT_TIMEOUT:
            return Wake::TimedOut;
        default:
            FailWithLastError(ExitCode::Trouble, "the log event");
        }
    }

    std::unique_ptr<Mailslot> CreateDebugMailslot() override
    {
        Handle slot(CreateMailslotW(MailslotPath, 0, 0, nullptr));
        if (!slot)
        {
            FailWithLastError(ExitCode::Trouble, "the debug mailslot cannot be made");
        }
        return std::make_unique<WindowsMailslot>(std::move(slot));
    }

private:
    Handle device_;
    Handle logEvent_;
};
}

std::unique_ptr<Transport> ConnectToDevice()
{
    Handle device(CreateFileW(DevicePath, GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
        OPEN_EXISTING, 0, nullptr));
    if (!device)
    {
        FailWithLastError(ExitCode::NotReachable, "driver not reachable");
    }
    return std::make_unique<WindowsTransport>(std::move(device));
}
}
