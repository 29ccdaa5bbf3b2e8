// Every call that can fail on Windows fails once, in every place of a configured driver's life: nothing may leak or
// crash, each answer is one that is documented, and afterwards everything works again.

#include "hosted/ke/failure_injection.h"
#include "tests/scenario/driver_under_test.h"
#include "tests/support/machine.h"

#include <functional>
#include <gmock/gmock.h>

namespace health_after_failure_test
{
namespace
{
using namespace hosted;

constexpr uint64_t MostCalls = 5000;

bool IsOneOf(NTSTATUS status, std::initializer_list<NTSTATUS> statuses)
{
    return std::ranges::find(statuses, status) != statuses.end();
}

// A machine on which every value of both keys is set.
class ConfiguredMachine
{
public:
    ConfiguredMachine()
    {
        ResetFailures();
        const std::vector<UCHAR> key(33, 0x11);
        Computer.Registry().SetBinary(Machine::ServiceKey, L"SandboxCryptKey", key);
        Computer.Registry().SetString(Machine::ServiceKey, L"SandboxPath", L"\\Device\\HarddiskVolume1\\Bay\\S");
        Computer.Registry().SetMultiString(Machine::ServiceKey, L"ProtectionFiles",
            {L"\\Device\\HarddiskVolume1\\Data\\*.doc", L"\\Device\\HarddiskVolume1\\Data\\secret.txt"});
        SetInstallerType();
        Computer.Registry().SetString(Machine::ProductKey, L"InstallFolder", L"C:\\Bay\\");
        Computer.Registry().SetDword(Machine::ProductKey, L"DebugLogLevel", 0x4100);
        EXPECT_EQ(Computer.PutOnDisk(L"C:\\Bay\\S\\plan.txt", "text"), STATUS_SUCCESS);
        EXPECT_EQ(Computer.PutOnDisk(L"C:\\Data\\note.txt", "text"), STATUS_SUCCESS);
        EXPECT_EQ(Computer.PutOnDisk(L"C:\\Apps\\Editor.exe", "image"), STATUS_SUCCESS);
        EXPECT_EQ(Computer.PutOnDisk(L"C:\\Apps\\Launcher.exe", "image"), STATUS_SUCCESS);
        Kit.emplace(Computer.StartProcess(L"C:\\Apps\\HbKit.exe"));
        Agent.emplace(Computer.StartProcess(L"C:\\Agent\\agent.exe"));
        Reader = Computer.CreateMailslot(L"\\Device\\mailslot\\OrvaneSandbox_Dbg");
    }
    ~ConfiguredMachine() { ResetFailures(); }

    void SetInstallerType()
    {
        // "ABCDEF0@" in base64, by 16-bit characters.
        const WideView text = L"QQBCAEMARABFAEYAMABAAA==";
        Computer.Registry().SetBinary(Machine::ProductKey, L"InstallerType",
            {reinterpret_cast<const UCHAR*>(text.data()), text.size() * sizeof(WCHAR)});
    }
    void Load()
    {
        ASSERT_EQ(Computer.LoadDriver(scenario_test::DriverUnderTest()), STATUS_SUCCESS);
        Event.emplace(Agent->CreateEvent());
        ASSERT_EQ(Agent->StartLogging(*Event, 0xffffffff), STATUS_SUCCESS);
        ASSERT_EQ(Agent->AddProcess(L"C:\\Apps\\Editor.exe").Status, STATUS_SUCCESS);
        ASSERT_EQ(Agent->AddParentProcess(L"C:\\Apps\\Launcher.exe").Status, STATUS_SUCCESS);
        ASSERT_EQ(Agent->AddExclusion(L"C:\\Apps\\Never.exe").Status, STATUS_SUCCESS);
        ASSERT_EQ(Agent->AddFileProtection(Agent->ProcessId(), L"C:\\Data\\note.txt").Status, STATUS_SUCCESS);
    }
    // Everything that a healthy driver does.
    void ExpectHealthy()
    {
        const ControlAnswer first = Agent->AddFileProtection(Agent->ProcessId(), L"C:\\Data\\healthy.txt");
        EXPECT_EQ(first.Status, STATUS_SUCCESS);
        EXPECT_EQ(Agent->DelFileProtection(first.Value), STATUS_SUCCESS);
        EXPECT_EQ(Agent->OutputCurrentParam(), STATUS_SUCCESS);
        const Program editor = Computer.StartProcess(L"C:\\Apps\\Editor.exe");
        EXPECT_EQ(Agent->IsUnderSandbox(editor.ProcessId()), Added(1));
        EXPECT_EQ(editor.Open(L"C:\\Bay\\S\\plan.txt").Status(), STATUS_SUCCESS);
        EXPECT_EQ(Agent->Open(L"C:\\Bay\\S\\plan.txt").Status(), STATUS_ACCESS_DENIED);
        EXPECT_EQ(Agent->Open(L"C:\\Data\\note.txt").Status(), STATUS_SUCCESS);
        EXPECT_EQ(editor.Open(L"C:\\Data\\note.txt").Status(), STATUS_ACCESS_DENIED);
        editor.Exit();
        EXPECT_EQ(Agent->IsUnderSandbox(editor.ProcessId()), Added(0));
    }

    Machine Computer;
    std::unique_ptr<MailslotReader> Reader;
    std::optional<Program> Kit;
    std::optional<Program> Agent;
    std::optional<ProgramEvent> Event;
};

TEST(HealthAfterFailure, Load)
{
    uint64_t failures = 0;
    for (uint64_t number = 1; number < MostCalls; ++number)
    {
        SCOPED_TRACE(number);
        ConfiguredMachine machine;
        ResetFailures();
        FailNthCall(number);
        const NTSTATUS status = machine.Computer.LoadDriver(scenario_test::DriverUnderTest());
        const bool failed = InjectedFailures() != 0;
        ResetFailures();
        if (!NT_SUCCESS(status))
        {
            // Only the registrations of the filter and of the process routine fail a load.
            ++failures;
            EXPECT_TRUE(IsOneOf(status, {STATUS_INSUFFICIENT_RESOURCES, STATUS_INVALID_PARAMETER}));
            machine.Computer.AbandonDriver();
        }
        if (HasFailure())
        {
            return;
        }
        if (!failed)
        {
            EXPECT_GT(number, 100u);
            EXPECT_EQ(failures, 2u);
            return;
        }
    }
    FAIL() << "the load never came to its end";
}

// Calls action(machine) with the nth fallible call failing, for each n, on one machine, until none fails any more.
void Sweep(ConfiguredMachine& machine, uint64_t leastCalls, const std::function<void()>& action)
{
    for (uint64_t number = 1; number < MostCalls; ++number)
    {
        SCOPED_TRACE(number);
        ResetFailures();
        FailNthCall(number);
        action();
        const bool failed = InjectedFailures() != 0;
        ResetFailures();
        machine.Agent->DrainLog();
        machine.Computer.ClearDebugPrints();
        if (testing::Test::HasFailure())
        {
            return;
        }
        if (!failed)
        {
            EXPECT_GT(number, leastCalls);
            machine.ExpectHealthy();
            return;
        }
    }
    FAIL() << "it never came to its end";
}

TEST(HealthAfterFailure, AddFileProtection)
{
    ConfiguredMachine machine;
    machine.Load();
    int next = 0;
    Sweep(machine, 5,
        [&]
        {
            const WideString path = L"C:\\Data\\new" + Widen(std::to_string(next++));
            const ControlAnswer answer = machine.Agent->AddFileProtection(machine.Agent->ProcessId(), path);
            EXPECT_TRUE(IsOneOf(answer.Status,
                {STATUS_SUCCESS, STATUS_INSUFFICIENT_RESOURCES, STATUS_MEMORY_NOT_ALLOCATED, STATUS_INVALID_PARAMETER}))
                << std::hex << answer.Status;
        });
}

TEST(HealthAfterFailure, AddFileProtectionOfAKnownPath)
{
    ConfiguredMachine machine;
    machine.Load();
    ULONG process = 1000;
    Sweep(machine, 3,
        [&]
        {
            process += 4;
            const ControlAnswer answer = machine.Agent->AddFileProtection(process, L"C:\\Data\\note.txt");
            EXPECT_TRUE(IsOneOf(answer.Status,
                {STATUS_SUCCESS, STATUS_INSUFFICIENT_RESOURCES, STATUS_MEMORY_NOT_ALLOCATED, STATUS_INVALID_PARAMETER}))
                << std::hex << answer.Status;
        });
}

TEST(HealthAfterFailure, DelFileProtection)
{
    ConfiguredMachine machine;
    machine.Load();
    std::vector<ULONG> ids;
    for (int i = 0; i < 20; ++i)
    {
        ids.push_back(machine.Agent->AddFileProtection(1000 + 4 * i, L"C:\\Data\\note.txt").Value);
    }
    Sweep(machine, 2,
        [&]
        {
            ASSERT_FALSE(ids.empty());
            // Deleting never fails, however little of it can be told.
            EXPECT_EQ(machine.Agent->DelFileProtection(ids.back()), STATUS_SUCCESS);
            ids.pop_back();
        });
}

TEST(HealthAfterFailure, OutputCurrentParam)
{
    ConfiguredMachine machine;
    machine.Load();
    Sweep(machine, 40,
        [&]
        {
            EXPECT_EQ(machine.Agent->OutputCurrentParam(), STATUS_SUCCESS);
            while (machine.Reader->Read())
            {
            }
        });
}

TEST(HealthAfterFailure, StartThatBuildsTheBrowserList)
{
    for (uint64_t number = 1; number < MostCalls; ++number)
    {
        SCOPED_TRACE(number);
        ConfiguredMachine machine;
        machine.Computer.Registry().DeleteValue(Machine::ProductKey, L"InstallerType");
        machine.Load();
        machine.SetInstallerType();
        ResetFailures();
        FailNthCall(number);
        // The request succeeds whatever becomes of the list.
        EXPECT_EQ(machine.Agent->StartDriver(), STATUS_SUCCESS);
        const bool failed = InjectedFailures() != 0;
        ResetFailures();
        EXPECT_EQ(machine.Agent->StartDriver(), STATUS_SUCCESS);
        machine.ExpectHealthy();
        if (!failed)
        {
            EXPECT_GT(number, 15u);
            return;
        }
    }
    FAIL() << "the start never came to its end";
}

TEST(HealthAfterFailure, AddProcessWhileItRuns)
{
    ConfiguredMachine machine;
    machine.Load();
    const Program editor = machine.Computer.StartProcess(L"C:\\Apps\\Editor.exe");
    Sweep(machine, 10,
        [&]
        {
            const ControlAnswer answer = machine.Agent->AddProcess(L"C:\\Apps\\Editor.exe");
            EXPECT_TRUE(IsOneOf(answer.Status,
                {STATUS_SUCCESS, STATUS_INSUFFICIENT_RESOURCES, STATUS_MEMORY_NOT_ALLOCATED, STATUS_INVALID_PARAMETER}))
                << std::hex << answer.Status;
        });
}

TEST(HealthAfterFailure, ProcessStartAndExit)
{
    ConfiguredMachine machine;
    machine.Load();
    for (const WideView image : {L"C:\\Apps\\Editor.exe", L"C:\\Apps\\Launcher.exe", L"C:\\Apps\\HbKit.exe"})
    {
        Sweep(machine, 5,
            [&]
            {
                // A process starts whatever the driver can make of it; the system itself may fail to start it.
                const Program program = machine.Computer.StartProcess(image);
                if (NT_SUCCESS(program.Status()))
                {
                    machine.Agent->AddFileProtection(program.ProcessId(), L"C:\\Data\\note.txt");
                    program.Exit();
                }
            });
        // Nobody who is gone is left behind.
        EXPECT_EQ(machine.Agent->PidList().Count, 0u);
    }
}

TEST(HealthAfterFailure, Opens)
{
    ConfiguredMachine machine;
    machine.Load();
    const Program editor = machine.Computer.StartProcess(L"C:\\Apps\\Editor.exe");
    for (const WideView path : {L"C:\\Bay\\S\\plan.txt", L"C:\\Data\\note.txt", L"C:\\Bay\\other.txt"})
    {
        for (const Program& program : {editor, *machine.Agent})
        {
            Sweep(machine, 2,
                [&]
                {
                    const NTSTATUS status = program.OpenOrCreate(path).Status();
                    EXPECT_TRUE(IsOneOf(status, {STATUS_SUCCESS, STATUS_ACCESS_DENIED, STATUS_INSUFFICIENT_RESOURCES}))
                        << std::hex << status;
                });
        }
    }
}

// A process routine that refuses to go has a test of its own; memory is what everything else asks for.
TEST(HealthAfterFailure, UnloadWithoutMemory)
{
    for (uint64_t number = 1; number < MostCalls; ++number)
    {
        SCOPED_TRACE(number);
        ConfiguredMachine machine;
        machine.Load();
        const Program editor = machine.Computer.StartProcess(L"C:\\Apps\\Editor.exe");
        machine.Event.reset();
        ResetFailures();
        FailRoutine("ExAllocatePoolWithTag", number);
        EXPECT_EQ(machine.Computer.UnloadDriver(), STATUS_SUCCESS);
        const bool failed = InjectedFailures() != 0;
        ResetFailures();
        if (!failed)
        {
            EXPECT_GT(number, 3u);
            return;
        }
    }
    FAIL() << "the unload never came to its end";
}
}
}
