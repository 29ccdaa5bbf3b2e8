#include "agent/tarnctl/driver_client.h"

#include "agent/tarnctl/failure.h"
#include "agent/tarnctl/status_names.h"
#include "agent/tarnctl/text.h"

#include <tarnveil/control.h>

#include <algorithm>
#include <cstring>

namespace tarnctl
{
namespace
{
using Bytes = std::vector<std::uint8_t>;

struct RequestCode
{
    const char* Name;
    std::uint32_t Code;
};

#define TARNCTL_REQUEST(Code) \
    RequestCode               \
    {                         \
        #Code, Code           \
    }

// Processes that may have come between the answer that named their count and the next attempt.
constexpr std::size_t RoomForNewcomers = 64;
constexpr int PidListAttempts = 16;
constexpr std::size_t RecordsAtOnce = 64;

template <class Value>
void Append(Bytes& bytes, const Value* values, std::size_t count)
{
    const auto* raw = reinterpret_cast<const std::uint8_t*>(values);
    bytes.insert(bytes.end(), raw, raw + count * sizeof(Value));
}

Bytes Word(std::uint32_t value)
{
    Bytes bytes;
    Append(bytes, &value, 1);
    return bytes;
}

// In UTF-16 with its terminator.
void AppendPath(Bytes& bytes, const std::string& path)
{
    const std::optional<std::u16string> wide = ToUtf16(path);
    if (!wide)
    {
        throw Failure(ExitCode::WrongUse, "the path is no valid text");
    }
    Append(bytes, wide->c_str(), wide->size() + 1);
}

Reply Send(
    Transport& transport, const RequestCode& request, const Bytes& input = {}, std::span<std::uint8_t> output = {})
{
    const Reply reply = transport.Send(request.Code, input, output);
    if (!IsSuccess(reply.Status))
    {
        throw Refusal(request.Name, reply.Status);
    }
    return reply;
}

std::uint32_t AskForWord(Transport& transport, const RequestCode& request, const Bytes& input = {})
{
    std::uint32_t answer = 0;
    Send(transport, request, input, {reinterpret_cast<std::uint8_t*>(&answer), sizeof(answer)});
    return answer;
}

// Up to the terminator, or whole.
std::string Text(const TARNVEIL_WCHAR* units, std::size_t capacity)
{
    const std::size_t length = static_cast<std::size_t>(std::find(units, units + capacity, 0) - units);
    std::u16string text(length, u'\0');
    std::memcpy(text.data(), units, length * sizeof(*units));
    return ToUtf8(text);
}

LogRecord Decode(const std::uint8_t* bytes)
{
    static_assert(sizeof(TARNVEIL_LOG_RECORD) == TARNVEIL_LOG_RECORD_BYTES);
    TARNVEIL_LOG_RECORD raw;
    std::memcpy(&raw, bytes, sizeof(raw));
    TARNVEIL_WCHAR name[TARNVEIL_LOG_NAME_CHARACTERS];
    TARNVEIL_WCHAR message[TARNVEIL_LOG_MESSAGE_CHARACTERS];
    std::memcpy(name, raw.ProcessName, sizeof(name));
    std::memcpy(message, raw.Message, sizeof(message));
    return {raw.Level, raw.ProcessId, Text(name, std::size(name)), Text(message, std::size(message))};
}

RequestCode AddRequest(SettingKind kind)
{
    switch (kind)
    {
    case SettingKind::Parent:
        return TARNCTL_REQUEST(IOCTL_ADD_PARENT_PROCESS);
    case SettingKind::Exclusion:
        return TARNCTL_REQUEST(IOCTL_ADD_EXC_PROCESS);
    case SettingKind::Process:
        break;
    }
    return TARNCTL_REQUEST(IOCTL_ADD_PROCESS);
}
}

void DriverClient::SetKey(const Key& key)
{
    // Sent from where it is: a copy would stay in memory.
    const Reply reply = transport_.Send(IOCTL_SET_CRYPTKEY, key.Whole(), {});
    if (!IsSuccess(reply.Status))
    {
        throw Refusal("IOCTL_SET_CRYPTKEY", reply.Status);
    }
}

void DriverClient::SetEncryption(bool on)
{
    Send(transport_, TARNCTL_REQUEST(IOCTL_SET_ENCRYPTION), Word(on ? 1 : 0));
}

void DriverClient::Start()
{
    Send(transport_, TARNCTL_REQUEST(IOCTL_START));
}

void DriverClient::Stop()
{
    Send(transport_, TARNCTL_REQUEST(IOCTL_STOP));
}

std::uint32_t DriverClient::AddSetting(SettingKind kind, const std::string& path)
{
    Bytes input;
    AppendPath(input, path);
    return AskForWord(transport_, AddRequest(kind), input);
}

void DriverClient::RemoveSetting(std::uint32_t id)
{
    Send(transport_, TARNCTL_REQUEST(IOCTL_DEL_PROCESS), Word(id));
}

std::uint32_t DriverClient::AddProtection(std::uint32_t processId, const std::string& path)
{
    Bytes input = Word(processId);
    AppendPath(input, path);
    return AskForWord(transport_, TARNCTL_REQUEST(IOCTL_ADD_FILE_PROTECTION), input);
}

void DriverClient::RemoveProtection(std::uint32_t id)
{
    Send(transport_, TARNCTL_REQUEST(IOCTL_DEL_FILE_PROTECTION), Word(id));
}

bool DriverClient::IsUnderSandbox(std::uint32_t processId)
{
    return AskForWord(transport_, TARNCTL_REQUEST(IOCTL_IS_UNDER_SANDBOX), Word(processId)) != 0;
}

bool DriverClient::IsAnyUnderSandbox()
{
    return AskForWord(transport_, TARNCTL_REQUEST(IOCTL_IS_EXIST_UNDER_SANDBOX)) != 0;
}

std::vector<std::uint32_t> DriverClient::ProcessesUnderSandbox()
{
    const RequestCode request = TARNCTL_REQUEST(IOCTL_GET_PID_LIST_UNDER_SANDBOX);
    std::vector<std::uint32_t> words(1 + RoomForNewcomers);
    for (int i = 0; i < PidListAttempts; ++i)
    {
        const std::span<std::uint8_t> output(
            reinterpret_cast<std::uint8_t*>(words.data()), words.size() * sizeof(words[0]));
        const Reply reply = transport_.Send(request.Code, {}, output);
        if (IsSuccess(reply.Status))
        {
            const std::size_t count = std::min<std::size_t>(words[0], words.size() - 1);
            return {words.begin() + 1, words.begin() + 1 + static_cast<std::ptrdiff_t>(count)};
        }
        if (reply.Status != StatusBufferTooSmall)
        {
            throw Refusal(request.Name, reply.Status);
        }
        words.assign(std::size_t{1} + words[0] + RoomForNewcomers, 0);
    }
    throw Refusal(request.Name, StatusBufferTooSmall);
}

void DriverClient::StartLogging(std::uint32_t levels)
{
    const std::uint64_t event = transport_.CreateLogEvent();
    // The driver takes a handle and levels that it knows for a repetition, and handles of an agent that was killed have
    // the same values: with levels in between that nobody uses, it looks at the handle.
    for (const std::uint32_t mask : {std::uint32_t{0}, levels})
    {
        const TARNVEIL_START_LOGGING input = {event, mask};
        Bytes bytes;
        Append(bytes, &input, 1);
        Send(transport_, TARNCTL_REQUEST(IOCTL_START_LOGGING), bytes);
    }
}

void DriverClient::StopLogging()
{
    Send(transport_, TARNCTL_REQUEST(IOCTL_STOP_LOGGING));
}

std::vector<LogRecord> DriverClient::TakeLogRecords()
{
    const RequestCode request = TARNCTL_REQUEST(IOCTL_GET_LOG_DATA);
    Bytes output(RecordsAtOnce * TARNVEIL_LOG_RECORD_BYTES);
    const Reply reply = transport_.Send(request.Code, {}, output);
    if (reply.Status == StatusNoMoreEntries)
    {
        return {};
    }
    if (!IsSuccess(reply.Status))
    {
        throw Refusal(request.Name, reply.Status);
    }
    std::vector<LogRecord> records;
    const std::size_t bytes = std::min<std::size_t>(reply.Bytes, output.size());
    for (std::size_t i = 0; i + TARNVEIL_LOG_RECORD_BYTES <= bytes; i += TARNVEIL_LOG_RECORD_BYTES)
    {
        records.push_back(Decode(output.data() + i));
    }
    return records;
}

void DriverClient::OutputCurrentParameters()
{
    Send(transport_, TARNCTL_REQUEST(IOCTL_OUTPUT_CURRENT_PARAM));
}
}
