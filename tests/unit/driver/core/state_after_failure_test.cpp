// What every call that can fail, failing in its turn, leaves inside the driver: the pool after a load and an unload,
// the lists after each request. That everything works again afterwards is seen from outside, by the scenario of that
// name.

#include "driver/core/global_state.h"
#include "driver/core/unload.h"
#include "hosted/ex/pool.h"
#include "hosted/ke/failure_injection.h"
#include "hosted/machine/native_image.h"
#include "hosted/ps/process_notify.h"
#include "hosted/rtl/debug_print.h"
#include "tests/support/machine.h"

#include <gmock/gmock.h>
#include <tarnveil/control.h>

namespace
{
using namespace hosted;
using testing::AnyOf;
using testing::Contains;
using testing::StartsWith;

constexpr WideView Folder = L"\\Device\\HarddiskVolume1\\Sandbox";

void Configure(Machine& machine)
{
    const std::vector<UCHAR> key(17, 7);
    machine.Registry().SetBinary(Machine::ServiceKey, L"SandboxCryptKey", key);
    machine.Registry().SetString(Machine::ServiceKey, L"SandboxPath", Folder);
}

void UnloadByHand()
{
    const AttachedProcess system(SystemProcess());
    EXPECT_EQ(UnloadDriver(0), STATUS_SUCCESS);
}

// One load with that plan, and its unload. True while the plan still met a call.
bool LoadOnce(void (*plan)(uint64_t), uint64_t number)
{
    Machine machine;
    Configure(machine);
    const size_t before = LivePoolAllocations();
    ResetFailures();
    plan(number);
    const NTSTATUS status = machine.LoadDriver(Image::Native);
    const bool failed = InjectedFailures() != 0;
    ResetFailures();
    if (!NT_SUCCESS(status))
    {
        // Nothing else fails a load.
        EXPECT_THAT(DebugPrints(), Contains(AnyOf(StartsWith("FltRegisterFilter fail "),
                                       StartsWith("Tarnveil - PsSetCreateProcessNotifyRoutineEx - "))));
    }
    if (NT_SUCCESS(status) && Global.Filter != nullptr)
    {
        EXPECT_EQ(machine.UnloadDriver(), STATUS_SUCCESS);
    }
    else
    {
        UnloadByHand();
    }
    EXPECT_EQ(LivePoolAllocations(), before) << DescribeLivePool();
    if (!NT_SUCCESS(status))
    {
        machine.AbandonDriver();
    }
    return failed;
}

TEST(StateAfterFailure, EachCallOfTheLoad)
{
    uint64_t number = 1;
    while (LoadOnce(FailNthCall, number))
    {
        SCOPED_TRACE(++number);
    }
    EXPECT_GT(number, 14u);
}

TEST(StateAfterFailure, EveryCallOfTheLoadFromOneOn)
{
    uint64_t number = 1;
    while (LoadOnce(FailFromCall, number))
    {
        SCOPED_TRACE(++number);
    }
    EXPECT_GT(number, 14u);
}

TEST(StateAfterFailure, EachCallOfTheUnload)
{
    uint64_t number = 0;
    for (bool failed = true; failed;)
    {
        SCOPED_TRACE(++number);
        Machine machine;
        Configure(machine);
        const size_t before = LivePoolAllocations();
        ASSERT_EQ(machine.LoadDriver(Image::Native), STATUS_SUCCESS);
        Program agent = machine.StartProcess(L"C:\\Agent.exe");
        EXPECT_EQ(agent.AddParentProcess(L"C:\\a.exe").Status, STATUS_SUCCESS);
        EXPECT_EQ(agent.AddProcess(L"C:\\b.exe").Status, STATUS_SUCCESS);
        EXPECT_EQ(agent.AddExclusion(L"C:\\c.exe").Status, STATUS_SUCCESS);
        machine.StartProcess(L"C:\\a.exe").Start(L"C:\\child.exe");
        machine.StartProcess(L"C:\\b.exe");
        ResetFailures();
        FailNthCall(number);
        EXPECT_EQ(machine.UnloadDriver(), STATUS_SUCCESS);
        failed = InjectedFailures() != 0;
        ResetFailures();
        EXPECT_EQ(LivePoolAllocations(), before) << DescribeLivePool();
        // The one failure that leaves something: the process routine that was not removed.
        ResetNotifyRoutines();
    }
    EXPECT_GT(number, 6u);
}

// Machine and agent stay; each request starts from the same settings.
class RequestStateAfterFailure : public testing::Test
{
protected:
    void SetUp() override
    {
        Configure(Computer);
        ASSERT_EQ(Computer.LoadDriver(Image::Native), STATUS_SUCCESS);
        Agent.emplace(Computer.StartProcess(L"C:\\Agent.exe"));
        Event.emplace(Agent->CreateEvent());
        Computer.StartProcess(L"C:\\Parent.exe").Start(L"C:\\Child.exe");
        App.emplace(Computer.StartProcess(L"C:\\App.exe"));
    }
    void TearDown() override
    {
        ResetFailures();
        Event.reset();
    }
    void Prepare()
    {
        EXPECT_EQ(Agent->StopDriver(), STATUS_SUCCESS);
        EXPECT_EQ(Agent->AddParentProcess(L"C:\\Parent.exe").Status, STATUS_SUCCESS);
        EXPECT_EQ(Agent->AddExclusion(L"C:\\Other.exe").Status, STATUS_SUCCESS);
        Setting = Agent->AddProcess(L"C:\\App.exe").Value;
        EXPECT_EQ(Agent->StopLogging(), STATUS_SUCCESS);
        EXPECT_EQ(Agent->StartLogging(*Event, 0xffffffff), STATUS_SUCCESS);
    }
    // The request once for each of its calls, and once with none failing. `check` sees each status.
    void Sweep(const std::function<NTSTATUS()>& send, std::initializer_list<ULONG> documented,
        const std::function<void(NTSTATUS)>& check = {})
    {
        uint64_t number = 0;
        for (bool failed = true; failed;)
        {
            SCOPED_TRACE(++number);
            Prepare();
            ResetFailures();
            FailNthCall(number);
            const NTSTATUS status = send();
            failed = InjectedFailures() != 0;
            ResetFailures();
            EXPECT_THAT(documented, Contains(static_cast<ULONG>(status))) << std::hex << status;
            if (!failed)
            {
                EXPECT_EQ(static_cast<ULONG>(status), *documented.begin());
            }
            if (check)
            {
                check(status);
            }
            ASSERT_LT(number, 1000u);
        }
        Swept = number - 1;
    }
    void SweepAdd(const ProcessNameSettingList& list, ControlAnswer (ControlClient::*add)(WideView) const)
    {
        Sweep([&] { return ((*Agent).*add)(L"C:\\New.exe").Status; }, {0, 0xC00000A0, 0xC000009A, 0xC000000D},
            [&list](NTSTATUS status)
            {
                const UNICODE_STRING path = Counted(L"C:\\New.exe");
                ULONG id = 0;
                EXPECT_EQ(FindSetting(list, &path, &id), NT_SUCCESS(status));
            });
        EXPECT_GT(Swept, 2u);
    }

    Machine Computer;
    std::optional<Program> Agent;
    std::optional<ProgramEvent> Event;
    std::optional<Program> App;
    ULONG Setting = 0;
    // How many calls failed, each once.
    uint64_t Swept = 0;
};

TEST_F(RequestStateAfterFailure, AddParentProcess)
{
    SweepAdd(ParentProcessNames, &ControlClient::AddParentProcess);
}

TEST_F(RequestStateAfterFailure, AddProcess)
{
    SweepAdd(ProcessNames, &ControlClient::AddProcess);
}

TEST_F(RequestStateAfterFailure, AddExclusion)
{
    SweepAdd(ExclusionProcessNames, &ControlClient::AddExclusion);
}

TEST_F(RequestStateAfterFailure, DeleteProcess)
{
    Sweep([this] { return Agent->DelProcess(Setting); }, {0},
        [this](NTSTATUS)
        {
            const UNICODE_STRING path = Counted(L"C:\\App.exe");
            ULONG id = 0;
            EXPECT_FALSE(FindSetting(ProcessNames, &path, &id));
            EXPECT_FALSE(Agent->IsUnderSandbox(App->ProcessId()));
        });
    EXPECT_GT(Swept, 2u);
}

TEST_F(RequestStateAfterFailure, Stop)
{
    Sweep([this] { return Agent->StopDriver(); }, {0},
        [this](NTSTATUS)
        {
            EXPECT_FALSE(Agent->IsExistUnderSandbox());
            const UNICODE_STRING path = Counted(L"C:\\Other.exe");
            ULONG id = 0;
            EXPECT_FALSE(FindSetting(ExclusionProcessNames, &path, &id));
            EXPECT_EQ(Global.EncryptionEnabled, 1u);
        });
    EXPECT_GT(Swept, 2u);
}

TEST_F(RequestStateAfterFailure, Start)
{
    Sweep([this] { return Agent->StartDriver(); }, {0});
}

TEST_F(RequestStateAfterFailure, SetCryptKey)
{
    Sweep([this] { return Agent->SetCryptKey("0123456789abcdef", 1); }, {0},
        [](NTSTATUS) { EXPECT_EQ(Global.XorByte, 7); });
    EXPECT_GT(Swept, 0u);
}

TEST_F(RequestStateAfterFailure, SetEncryption)
{
    Sweep([this] { return Agent->SetEncryption(0); }, {0}, [](NTSTATUS) { EXPECT_EQ(Global.EncryptionEnabled, 0u); });
    EXPECT_GT(Swept, 0u);
}

TEST_F(RequestStateAfterFailure, StartLogging)
{
    Sweep(
        [this]
        {
            Agent->StopLogging();
            return Agent->StartLogging(*Event, TARNVEIL_LEVEL_TRACE);
        },
        {0, 0xC0000008});
    EXPECT_GT(Swept, 0u);
}

TEST_F(RequestStateAfterFailure, GetLogDataAndStopLogging)
{
    Sweep([this] { return Agent->GetLogData(4).Status; }, {0});
    Sweep([this] { return Agent->StopLogging(); }, {0});
}

TEST_F(RequestStateAfterFailure, Questions)
{
    Sweep([this] { return Agent->IsUnderSandbox(App->ProcessId()).Status; }, {0});
    Sweep([this] { return Agent->IsExistUnderSandbox().Status; }, {0});
    Sweep([this] { return Agent->PidList().Status; }, {0});
}
}
