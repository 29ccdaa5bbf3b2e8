// What the agent is told, and how it hears of it.
#include "tests/scenario/agent_scenario.h"
#include "tests/scenario/driver_under_test.h"

namespace scenario_test
{
namespace
{
class AgentLog : public AgentScenario
{
protected:
    // Leaves one record of the trace level.
    void MakeRecord(bool on = true) { EXPECT_EQ(agent_.SetEncryption(on ? 1 : 0), STATUS_SUCCESS); }
    static constexpr char Enabled[] = "IRP = DEV_CTRL IOCTL = ENCRYPT Encrypt = Enable";
    static constexpr char Disabled[] = "IRP = DEV_CTRL IOCTL = ENCRYPT Encrypt = Disable";
};

TEST_F(AgentLog, TheEventIsSignalledForEachRecord)
{
    Listen();
    EXPECT_FALSE(event_.IsSet());
    MakeRecord();
    EXPECT_TRUE(event_.Wait());
    EXPECT_FALSE(event_.IsSet());
    MakeRecord(false);
    EXPECT_TRUE(event_.Wait());
    EXPECT_THAT(Messages(), ElementsAre(Enabled, Disabled));
}

TEST_F(AgentLog, DrainingTakesTheRecordsOutOldestFirst)
{
    Listen();
    for (const bool on : {true, false, false, true, true})
    {
        MakeRecord(on);
    }
    ControlResult result = agent_.DeviceControl(IOCTL_GET_LOG_DATA, {}, 1095);
    EXPECT_EQ(result.Status, STATUS_BUFFER_TOO_SMALL);
    EXPECT_EQ(result.Information, 0u);
    result = agent_.DeviceControl(IOCTL_GET_LOG_DATA, {}, 3000);
    EXPECT_EQ(result.Status, STATUS_SUCCESS);
    EXPECT_EQ(result.Information, 2192u);
    const auto records = DecodeLogRecords(std::string_view(result.Output).substr(0, result.Information));
    EXPECT_THAT(records, ElementsAre(LogRecord{0x40, agent_.ProcessId(), "agent.exe", Enabled},
                             LogRecord{0x40, agent_.ProcessId(), "agent.exe", Disabled}));
    EXPECT_THAT(Messages(), ElementsAre(Disabled, Enabled, Enabled));
    result = agent_.DeviceControl(IOCTL_GET_LOG_DATA, {}, 1096);
    EXPECT_EQ(result.Status, STATUS_NO_MORE_ENTRIES);
    EXPECT_EQ(result.Information, 0u);
}

TEST_F(AgentLog, AFullQueueLosesItsOldestRecords)
{
    Listen();
    for (int i = 0; i < 1030; ++i)
    {
        // The six that are lost say something else than the rest.
        MakeRecord(i >= 6);
    }
    EXPECT_EQ(Messages(), std::vector<std::string>(1024, Enabled));
}

TEST_F(AgentLog, OnlyTheLevelsAskedForAreQueued)
{
    machine_.Registry().SetString(Machine::ServiceKey, L"SandboxPath", L"\\Device\\HarddiskVolume1\\Sandbox");
    ASSERT_EQ(machine_.UnloadDriver(), STATUS_SUCCESS);
    ASSERT_EQ(machine_.LoadDriver(scenario_test::DriverUnderTest()), STATUS_SUCCESS);
    ASSERT_EQ(machine_.MakeFolder(L"C:\\Sandbox"), STATUS_SUCCESS);
    agent_.SetCryptKey("0123456789abcdef", 1);
    agent_.AddProcess(L"C:\\e.exe");
    const Program editor = machine_.StartProcess(L"C:\\e.exe");
    const auto roads = [&]
    {
        MakeRecord();
        agent_.SetCryptKey("0123456789abcdef", 2);
        EXPECT_EQ(editor.Create(L"C:\\Sandbox\\a").Status(), STATUS_SUCCESS);
        EXPECT_EQ(agent_.Open(L"C:\\Sandbox\\a").Status(), STATUS_ACCESS_DENIED);
    };
    const std::string allowed =
        "IRP = CREATE Ope = PRE status = 0x00000000L path = \\Device\\HarddiskVolume1\\Sandbox\\a";
    const std::string denied =
        "IRP = CREATE Ope = PRE status = 0xC0000022L path = \\Device\\HarddiskVolume1\\Sandbox\\a";
    const std::string refused = "IRP = DEV_CTRL IOCTL = SET_CRYPTKEY status = OVERRIDE_KEY";
    const LogRecord all[] = {{0x40, agent_.ProcessId(), "agent.exe", Enabled},
        {0x04, agent_.ProcessId(), "agent.exe", refused}, {0x02, editor.ProcessId(), "e.exe", allowed},
        {0x08, agent_.ProcessId(), "agent.exe", denied}};
    for (const ULONG levels : {0x02u, 0x04u, 0x08u, 0x40u, 0x0au, 0x4eu, 0x31u})
    {
        Listen(levels);
        roads();
        std::vector<LogRecord> expected;
        std::copy_if(std::begin(all), std::end(all), std::back_inserter(expected),
            [=](const LogRecord& record) { return (record.Level & levels) != 0; });
        EXPECT_EQ(agent_.DrainLog(), expected) << std::hex << levels;
        EXPECT_EQ(event_.IsSet(), !expected.empty()) << std::hex << levels;
    }
}

TEST_F(AgentLog, AnotherEventTakesTheFirstOnesPlace)
{
    Listen();
    const ProgramEvent second = agent_.CreateEvent();
    ASSERT_EQ(agent_.StartLogging(second, 0x40), STATUS_SUCCESS);
    agent_.DrainLog();
    event_.Clear();
    MakeRecord();
    EXPECT_FALSE(event_.IsSet());
    EXPECT_TRUE(second.IsSet());
}

TEST_F(AgentLog, ARefusedHandleLeavesTheRegistrationAsItWas)
{
    Listen(0x40);
    EXPECT_EQ(agent_.StartLogging(reinterpret_cast<HANDLE>(0x7ff0), 0x02), STATUS_INVALID_HANDLE);
    agent_.DrainLog();
    event_.Clear();
    MakeRecord();
    EXPECT_TRUE(event_.IsSet());
    EXPECT_THAT(Messages(), ElementsAre(Enabled));
}

TEST_F(AgentLog, AfterStopNothingIsToldUntilTheNextStart)
{
    Listen();
    MakeRecord();
    EXPECT_EQ(agent_.StopLogging(), STATUS_SUCCESS);
    event_.Clear();
    MakeRecord();
    EXPECT_FALSE(event_.IsSet());
    EXPECT_THAT(Messages(), IsEmpty());
    Listen();
    MakeRecord(false);
    EXPECT_TRUE(event_.IsSet());
    EXPECT_THAT(Messages(), ElementsAre(Disabled));
}

TEST_F(AgentLog, TheEventOutlivesTheAgentsHandle)
{
    Listen();
    event_.CloseHandle();
    MakeRecord();
    EXPECT_THAT(Messages(), ElementsAre(Enabled));
    EXPECT_EQ(agent_.StopLogging(), STATUS_SUCCESS);
}

TEST_F(AgentLog, RecordsAndRegistrationEndWithTheDriver)
{
    Listen();
    MakeRecord();
    ASSERT_EQ(machine_.UnloadDriver(), STATUS_SUCCESS);
    ASSERT_EQ(machine_.LoadDriver(scenario_test::DriverUnderTest()), STATUS_SUCCESS);
    event_.Clear();
    MakeRecord();
    EXPECT_FALSE(event_.IsSet());
    EXPECT_THAT(Messages(), IsEmpty());
}

TEST_F(AgentLog, AProgramsLifeIsToldFromSettingToExit)
{
    Listen();
    agent_.AddParentProcess(L"C:\\p.exe");
    agent_.AddProcess(L"C:\\e.exe");
    agent_.AddExclusion(L"C:\\x.exe");
    const Program parent = machine_.StartProcess(L"C:\\p.exe");
    const Program child = parent.Start(L"C:\\c.exe");
    const Program editor = child.Start(L"C:\\e.exe");
    const Program excluded = child.Start(L"C:\\x.exe");
    const ULONG p = parent.ProcessId();
    const ULONG c = child.ProcessId();
    const ULONG e = editor.ProcessId();
    agent_.AddProcess(L"C:\\E.exe");
    editor.Exit();
    child.Exit();
    parent.Exit();
    excluded.Exit();
    agent_.DelProcess(Id(0));
    agent_.StopDriver();
    const auto created = [](const char* outcome, ULONG id, ULONG creator, ULONG pid, const char* name)
    {
        return Text("PROC = CREATED status = %s id = %u ppid = %u pid = %u name = %s", outcome, id, creator, pid, name);
    };
    const auto exited = [](const char* outcome, ULONG id, ULONG pid)
    { return Text("PROC = EXITS status = %s id = %u pid = %u", outcome, id, pid); };
    const auto setting = [](const char* operation, const char* outcome, ULONG id, const char* path)
    { return Text("IRP = DEV_CTRL IOCTL = %s status = %s id = %u path = %s", operation, outcome, id, path); };
    EXPECT_THAT(Messages(),
        ElementsAre(setting("ADD_PARENT", "ADDED_SETTING", Id(0), "C:\\p.exe"),
            setting("ADD_PROCESS", "ADDED_SETTING", Id(1), "C:\\e.exe"),
            setting("ADD_EXC_PROC", "ADDED_SETTING", Id(2), "C:\\x.exe"), created("ADDED_PARENT", Id(0), 4, p, "p.exe"),
            created("ADDED_CHILD", Id(0), p, c, "c.exe"), created("ADDED_PROCESS", Id(1), c, e, "e.exe"),
            created("EXCLUDED", Id(2), c, excluded.ProcessId(), "x.exe"),
            setting("ADD_PROCESS", "SETTING_EXISTS", Id(1), "C:\\E.exe"), exited("DELETED_PROCESS", Id(1), e),
            exited("DELETED_CHILD", Id(0), c), exited("DELETED_PARENT", Id(0), p),
            setting("DEL_PROCESS", "DELETED_SETTING", Id(0), "C:\\p.exe"),
            setting("STOP", "DELETED_SETTING", Id(1), "C:\\e.exe"),
            setting("STOP", "DELETED_SETTING", Id(0) - 1, "C:\\nobody.exe"),
            setting("STOP", "DELETED_SETTING", Id(2), "C:\\x.exe")));
}
}
}
