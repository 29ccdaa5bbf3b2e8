// A driver in a guarded pool, and an agent that sends it whatever it likes.
#pragma once

#include "driver/core/global_state.h"
#include "hosted/ke/failure_injection.h"
#include "hosted/machine/native_image.h"
#include "tests/support/machine.h"

#include <gmock/gmock.h>
#include <tarnveil/control.h>

namespace request_sweep_test
{
using namespace hosted;

inline std::string Bytes(WideView text)
{
    return {reinterpret_cast<const char*>(text.data()), text.size() * sizeof(WCHAR)};
}

inline std::string Word(ULONG value)
{
    return {reinterpret_cast<const char*>(&value), sizeof(value)};
}

inline bool IsOneOf(NTSTATUS status, std::initializer_list<NTSTATUS> statuses)
{
    return std::ranges::find(statuses, status) != statuses.end();
}

inline MachineOptions GuardedMachine()
{
    MachineOptions options;
    options.System.GuardedPool = true;
    return options;
}

// What a request may change and Reset brings back. Protections are not among it: they stay until the unload.
struct DriverState
{
    size_t Parents;
    size_t Processes;
    size_t Exclusions;
    size_t MonitoredParents;
    size_t MonitoredProcesses;
    ULONG KeyLength;
    UCHAR KeyClaimed;
    ULONG EncryptionEnabled;
    BOOLEAN Started;
    ULONG CachedNames;

    bool operator==(const DriverState&) const = default;
    size_t Settings() const { return Parents + Processes + Exclusions; }
};

class RequestSweep : public testing::Test
{
protected:
    void SetUp() override
    {
        ResetFailures();
        ASSERT_EQ(machine_.LoadDriver(Image::Native), STATUS_SUCCESS);
        agent_.emplace(machine_.StartProcess(L"C:\\Agent\\agent.exe"));
        editor_.emplace(machine_.StartProcess(L"C:\\Apps\\Editor.exe"));
        Reset();
        clean_ = State();
    }

    // One process under the sandbox, no key, nothing else.
    void Reset()
    {
        agent_->StopDriver();
        ASSERT_EQ(agent_->AddProcess(L"C:\\Apps\\Editor.exe").Status, STATUS_SUCCESS);
        Global.KeyLength = 0;
        Global.KeyClaimed = FALSE;
        machine_.ClearDebugPrints();
    }
    // The same, for less where nothing has changed.
    void ResetIfChanged()
    {
        if (State() != clean_)
        {
            Reset();
            ASSERT_TRUE(State() == clean_);
        }
        machine_.ClearDebugPrints();
    }
    DriverState State()
    {
        DriverState state = {Count(Global.ParentProcessNameList), Count(Global.ProcessNameList),
            Count(Global.ExclusionProcessNameList), Count(Global.MonitoredParentProcessList),
            Count(Global.MonitoredProcessList), Global.KeyLength, Global.KeyClaimed, Global.EncryptionEnabled, FALSE,
            0};
        WithLock(Global.StartedLock, [&]() REQUIRES_LOCK(Global.StartedLock) { state.Started = Global.Started; });
        EXPECT_EQ(CTGetElementCount(&Global.ProcessCache, &state.CachedNames), STATUS_SUCCESS);
        return state;
    }
    size_t Settings() { return State().Settings(); }
    template <class Entry>
    static size_t Count(LockedList<Entry>& list)
    {
        size_t count = 0;
        WithLock(list.Lock, [&]() REQUIRES_LOCK(list.Lock) { count = list.Entries.Count(); });
        return count;
    }

    Machine machine_{GuardedMachine()};
    std::optional<Program> agent_;
    std::optional<Program> editor_;
    DriverState clean_ = {};
};
}
