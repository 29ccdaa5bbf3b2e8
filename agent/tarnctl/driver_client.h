// The requests of tarnveil/control.h in their own terms, over any transport. Every routine throws Refusal when the
// driver refuses, and Failure with WrongUse for a path that is no UTF-8. Texts are UTF-8.
#pragma once

#include "agent/tarnctl/key.h"
#include "agent/tarnctl/transport.h"

#include <cstdint>
#include <string>
#include <vector>

namespace tarnctl
{
enum class SettingKind
{
    Process,
    Parent,
    Exclusion
};

struct LogRecord
{
    std::uint32_t Level = 0;
    std::uint32_t ProcessId = 0;
    std::string ProcessName;
    std::string Message;
};

class DriverClient
{
public:
    explicit DriverClient(Transport& transport) : transport_(transport) {}

    // A driver that has a key keeps it and says success all the same.
    void SetKey(const Key& key);
    void SetEncryption(bool on);
    void Start();
    void Stop();

    // The setting's id.
    std::uint32_t AddSetting(SettingKind kind, const std::string& path);
    // Of any kind.
    void RemoveSetting(std::uint32_t id);
    std::uint32_t AddProtection(std::uint32_t processId, const std::string& path);
    void RemoveProtection(std::uint32_t id);

    bool IsUnderSandbox(std::uint32_t processId);
    bool IsAnyUnderSandbox();
    std::vector<std::uint32_t> ProcessesUnderSandbox();

    // Records of these levels go to this transport's log event and queue from now on.
    void StartLogging(std::uint32_t levels);
    void StopLogging();
    // The oldest waiting records, which are then gone; none when none waits.
    std::vector<LogRecord> TakeLogRecords();

    void OutputCurrentParameters();

private:
    Transport& transport_;
};
}
