// What an agent can ask of the driver through its control device.
#pragma once

#include "hosted/machine/log_record.h"
#include "hosted/machine/program_event.h"
#include "hosted/rtl/wide_string.h"

#include <memory>
#include <optional>
#include <vector>

namespace hosted
{
// What a request came to. Output is what the caller's buffer holds afterwards, whatever the byte count says.
struct ControlResult
{
    NTSTATUS Status = STATUS_SUCCESS;
    ULONG_PTR Information = 0;
    std::string Output;
};

enum class OutputBuffer
{
    Ordinary,
    Exact, // ends at an inaccessible page
    ReadOnly,
    NoAccess,
    Null,
    LostMidway, // writable when the request is made, inaccessible when the driver gets it
    Guarded,    // as LostMidway, but its pages got a guard only: they are back after one fault
    Kernel      // an address that is no program's
};

struct ControlOptions
{
    OutputBuffer Kind = OutputBuffer::Ordinary;
    // Bytes that really exist, before an inaccessible page, when fewer than the request claims.
    std::optional<ULONG> Existing = {};
    // False: the I/O manager does not look at the buffers, so that the driver meets them as they are.
    bool Probe = true;
    // What the output buffer is filled with before.
    UCHAR Fill = 0xEE;
};

// A request with a 4-byte result. `Value` is the fill pattern when the driver wrote nothing.
struct ControlAnswer
{
    NTSTATUS Status = STATUS_SUCCESS;
    ULONG Value = 0;

    bool operator==(const ControlAnswer&) const = default;
    // Succeeded with another answer than 0.
    explicit operator bool() const { return NT_SUCCESS(Status) && Value != 0; }
};
std::ostream& operator<<(std::ostream& stream, const ControlAnswer& answer);

// A setting was accepted under that id.
inline ControlAnswer Added(ULONG id)
{
    return {STATUS_SUCCESS, id};
}

struct PidListAnswer
{
    NTSTATUS Status = STATUS_SUCCESS;
    ULONG Count = 0;        // as the driver wrote it
    std::vector<ULONG> Ids; // those that fit; empty unless the request succeeded
};

struct LogAnswer
{
    NTSTATUS Status = STATUS_SUCCESS;
    ULONG_PTR Information = 0;
    std::vector<LogRecord> Records;
};

struct ProgramState;

// Each request opens the control device, sends, and closes it, as the program. When the open fails its status is the
// answer.
class ControlClient
{
public:
    // `outputSize` in bytes.
    ControlResult DeviceControl(
        ULONG code, std::string_view input = {}, ULONG outputSize = 0, const ControlOptions& options = {}) const;

    NTSTATUS SetCryptKey(std::string_view key, UCHAR mask) const;
    ControlAnswer AddParentProcess(WideView pattern) const;
    ControlAnswer AddProcess(WideView pattern) const;
    ControlAnswer AddExclusion(WideView pattern) const;
    ControlAnswer AddFileProtection(ULONG processId, WideView path) const;
    NTSTATUS DelProcess(ULONG settingId) const;
    NTSTATUS DelFileProtection(ULONG settingId) const;
    NTSTATUS StartDriver() const;
    NTSTATUS StopDriver() const;
    NTSTATUS StartLogging(const ProgramEvent& event, ULONG levels) const;
    NTSTATUS StartLogging(HANDLE event, ULONG levels) const;
    NTSTATUS StopLogging() const;
    // One request for at most so many records.
    LogAnswer GetLogData(ULONG maximumRecords = 64) const;
    // Requests until none is left.
    std::vector<LogRecord> DrainLog() const;
    ControlAnswer IsUnderSandbox(ULONG processId) const;
    ControlAnswer IsExistUnderSandbox() const;
    // With room for so many ids.
    PidListAnswer PidList(ULONG maximumIds = 256) const;
    NTSTATUS SetEncryption(ULONG value) const;
    NTSTATUS OutputCurrentParam() const;

protected:
    explicit ControlClient(std::shared_ptr<ProgramState> state) : state_(std::move(state)) {}
    std::shared_ptr<ProgramState> state_;
};
}
