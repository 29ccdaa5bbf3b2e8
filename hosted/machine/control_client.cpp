// The requests in their own terms: inputs put together, outputs taken apart.
#include "hosted/machine/control_client.h"

#include <tarnveil/control.h>

#include <algorithm>
#include <cstring>
#include <ostream>

namespace hosted
{
namespace
{
std::string Bytes(ULONG value)
{
    return std::string(reinterpret_cast<const char*>(&value), sizeof(value));
}

// With its terminator.
std::string Bytes(WideView text)
{
    const WideString terminated(text);
    return std::string(reinterpret_cast<const char*>(terminated.c_str()), (terminated.size() + 1) * sizeof(WCHAR));
}

ULONG WordAt(const std::string& bytes, size_t offset)
{
    ULONG value = 0;
    if (offset + sizeof(value) <= bytes.size())
    {
        std::memcpy(&value, bytes.data() + offset, sizeof(value));
    }
    return value;
}

ControlAnswer Answer(const ControlResult& result)
{
    return {result.Status, WordAt(result.Output, 0)};
}
}

std::ostream& operator<<(std::ostream& stream, const ControlAnswer& answer)
{
    return stream << "{status 0x" << std::hex << static_cast<ULONG>(answer.Status) << std::dec << ", value "
                  << answer.Value << "}";
}

NTSTATUS ControlClient::SetCryptKey(std::string_view key, UCHAR mask) const
{
    return DeviceControl(IOCTL_SET_CRYPTKEY, std::string(key) + static_cast<char>(mask)).Status;
}

ControlAnswer ControlClient::AddParentProcess(WideView pattern) const
{
    return Answer(DeviceControl(IOCTL_ADD_PARENT_PROCESS, Bytes(pattern), sizeof(ULONG)));
}

ControlAnswer ControlClient::AddProcess(WideView pattern) const
{
    return Answer(DeviceControl(IOCTL_ADD_PROCESS, Bytes(pattern), sizeof(ULONG)));
}

ControlAnswer ControlClient::AddExclusion(WideView pattern) const
{
    return Answer(DeviceControl(IOCTL_ADD_EXC_PROCESS, Bytes(pattern), sizeof(ULONG)));
}

ControlAnswer ControlClient::AddFileProtection(ULONG processId, WideView path) const
{
    return Answer(DeviceControl(IOCTL_ADD_FILE_PROTECTION, Bytes(processId) + Bytes(path), sizeof(ULONG)));
}

NTSTATUS ControlClient::DelProcess(ULONG settingId) const
{
    return DeviceControl(IOCTL_DEL_PROCESS, Bytes(settingId)).Status;
}

NTSTATUS ControlClient::DelFileProtection(ULONG settingId) const
{
    return DeviceControl(IOCTL_DEL_FILE_PROTECTION, Bytes(settingId)).Status;
}

NTSTATUS ControlClient::StartDriver() const
{
    return DeviceControl(IOCTL_START).Status;
}

NTSTATUS ControlClient::StopDriver() const
{
    return DeviceControl(IOCTL_STOP).Status;
}

NTSTATUS ControlClient::StartLogging(const ProgramEvent& event, ULONG levels) const
{
    return StartLogging(event.Handle(), levels);
}

NTSTATUS ControlClient::StartLogging(HANDLE event, ULONG levels) const
{
    const TARNVEIL_START_LOGGING input{reinterpret_cast<ULONG_PTR>(event), levels};
    return DeviceControl(IOCTL_START_LOGGING, {reinterpret_cast<const char*>(&input), sizeof(input)}).Status;
}

NTSTATUS ControlClient::StopLogging() const
{
    return DeviceControl(IOCTL_STOP_LOGGING).Status;
}

LogAnswer ControlClient::GetLogData(ULONG maximumRecords) const
{
    const ControlResult result = DeviceControl(IOCTL_GET_LOG_DATA, {}, maximumRecords * TARNVEIL_LOG_RECORD_BYTES);
    LogAnswer answer{result.Status, result.Information, {}};
    if (!NT_ERROR(result.Status))
    {
        answer.Records = DecodeLogRecords(std::string_view(result.Output).substr(0, result.Information));
    }
    return answer;
}

std::vector<LogRecord> ControlClient::DrainLog() const
{
    std::vector<LogRecord> all;
    for (;;)
    {
        LogAnswer answer = GetLogData();
        if (answer.Status != STATUS_SUCCESS || answer.Records.empty())
        {
            return all;
        }
        std::ranges::move(answer.Records, std::back_inserter(all));
    }
}

ControlAnswer ControlClient::IsUnderSandbox(ULONG processId) const
{
    return Answer(DeviceControl(IOCTL_IS_UNDER_SANDBOX, Bytes(processId), sizeof(ULONG)));
}

ControlAnswer ControlClient::IsExistUnderSandbox() const
{
    return Answer(DeviceControl(IOCTL_IS_EXIST_UNDER_SANDBOX, {}, sizeof(ULONG)));
}

PidListAnswer ControlClient::PidList(ULONG maximumIds) const
{
    const ControlResult result =
        DeviceControl(IOCTL_GET_PID_LIST_UNDER_SANDBOX, {}, static_cast<ULONG>((maximumIds + 1) * sizeof(ULONG)));
    PidListAnswer answer{result.Status, WordAt(result.Output, 0), {}};
    if (NT_SUCCESS(result.Status))
    {
        for (ULONG i = 0; i < std::min(answer.Count, maximumIds); ++i)
        {
            answer.Ids.push_back(WordAt(result.Output, (i + 1) * sizeof(ULONG)));
        }
    }
    return answer;
}

NTSTATUS ControlClient::SetEncryption(ULONG value) const
{
    return DeviceControl(IOCTL_SET_ENCRYPTION, Bytes(value)).Status;
}

NTSTATUS ControlClient::OutputCurrentParam() const
{
    return DeviceControl(IOCTL_OUTPUT_CURRENT_PARAM).Status;
}
}
