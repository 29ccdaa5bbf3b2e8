// Processes that run already when a setting is added.
#include "driver/process/process_scan.h"
#include "driver/process/monitored_process.h"
#include "tests/unit/driver/process/agent_fixture.h"

using namespace agent_test;

namespace
{
class ProcessScanTest : public AgentTest
{
protected:
    std::string Registered(
        const char* label, const char* outcome, ULONG id, ULONG parent, const Program& program, const char* name)
    {
        return Text("IRP = DEV_CTRL %s status = %s id = %u ppid = %u pid = %u name = %s", label, outcome, id, parent,
            program.ProcessId(), name);
    }
    static ULONG System() { return static_cast<ULONG>(reinterpret_cast<ULONG_PTR>(SystemProcess()->Id)); }
};

TEST_F(ProcessScanTest, NullArgumentsAreRefused)
{
    UNICODE_STRING path = Counted(L"C:\\a.exe");
    SYSTEM_PROCESS_INFORMATION record{};
    EXPECT_EQ(RegistMonitoredParentProcess(nullptr, &path, 1), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(RegistMonitoredParentProcess(&record, nullptr, 1), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(RegistMonitoredProcess(nullptr, &path, 1), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(RegistMonitoredProcess(&record, nullptr, 1), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(RegistMonitoredChildrenProcess(nullptr), STATUS_INVALID_PARAMETER);
}

TEST_F(ProcessScanTest, ARunningParentAndItsGrandchildAreRegistered)
{
    const Program parent = machine_.StartProcess(L"C:\\Tools\\Launcher.exe");
    const Program child = parent.Start(L"C:\\c.exe");
    const Program grandchild = child.Start(L"C:\\g.exe");
    const Program stranger = machine_.StartProcess(L"C:\\s.exe");
    Listen();
    EXPECT_EQ(agent_.AddParentProcess(L"c:\\tools\\LAUNCHER.exe"), Added(Id(0)));
    EXPECT_THAT(Messages(),
        ElementsAre(
            Text("IRP = DEV_CTRL IOCTL = ADD_PARENT status = ADDED_SETTING id = %u path = c:\\tools\\LAUNCHER.exe",
                Id(0)),
            Registered("IOCTL = ADD_PARENT", "ADDED_PARENT", Id(0), System(), parent, "Launcher.exe"),
            Registered("IOCTL = ADD_PARENT", "ADDED_CHILD", Id(0), parent.ProcessId(), child, "c.exe"),
            Registered("IOCTL = ADD_PARENT", "ADDED_CHILD", Id(0), child.ProcessId(), grandchild, "g.exe")));
    EXPECT_THAT(agent_.PidList().Ids, ElementsAre(child.ProcessId(), grandchild.ProcessId()));
    EXPECT_EQ(agent_.IsUnderSandbox(stranger.ProcessId()).Value, 0u);
}

TEST_F(ProcessScanTest, TheSameSettingAgainFindsThemAllAdded)
{
    const Program parent = machine_.StartProcess(L"C:\\p.exe");
    const Program child = parent.Start(L"C:\\c.exe");
    agent_.AddParentProcess(L"C:\\p.exe");
    Listen();
    Global.VerboseTrace = TRUE;
    const auto prints = PrintsOf([&] { agent_.AddParentProcess(L"C:\\p.exe"); });
    using testing::Contains;
    EXPECT_THAT(prints, Contains(Text("Tarnveil - RegistMonitoredParentProcess: %u - p.exe\n", parent.ProcessId())));
    EXPECT_THAT(prints, Contains(Text("Tarnveil - \\Device\\HarddiskVolume1\\p.exe (%u) has already been added.\n",
                            parent.ProcessId())));
    EXPECT_THAT(prints, Contains(Text("Tarnveil - \\Device\\HarddiskVolume1\\c.exe (%u) has already been added.\n",
                            child.ProcessId())));
    EXPECT_THAT(prints, Contains(Text("Tarnveil - RegistMonitoredChildrenProcess: %u - c.exe\n", child.ProcessId())));
    EXPECT_THAT(prints, Contains(Text("Tarnveil - p.exe (%u) has already been added.\n", parent.ProcessId())));
    EXPECT_THAT(prints, Contains(Text("Tarnveil - c.exe (%u) has already been added.\n", child.ProcessId())));
    Global.VerboseTrace = FALSE;
    EXPECT_THAT(Messages(),
        ElementsAre(Text("IRP = DEV_CTRL IOCTL = ADD_PARENT status = SETTING_EXISTS id = %u path = C:\\p.exe", Id(0))));
}

TEST_F(ProcessScanTest, ARunningProcessIsRegisteredWithoutItsChildren)
{
    const Program editor = machine_.StartProcess(L"C:\\e.exe");
    const Program helper = editor.Start(L"C:\\h.exe");
    Listen();
    EXPECT_EQ(agent_.AddProcess(L"C:\\e.exe"), Added(Id(0)));
    EXPECT_THAT(Messages(),
        ElementsAre(Text("IRP = DEV_CTRL IOCTL = ADD_PROCESS status = ADDED_SETTING id = %u path = C:\\e.exe", Id(0)),
            Registered("IOCTL = ADD_PROCESS", "ADDED_PROCESS", Id(0), System(), editor, "e.exe")));
    EXPECT_EQ(agent_.IsUnderSandbox(helper.ProcessId()).Value, 0u);
}

// A query that succeeds without asking for room leaves no name behind, in either of the scans of one add.
TEST_F(ProcessScanTest, AProcessWhoseImageQueryGivesNothingIsPassedOver)
{
    const Program editor = machine_.StartProcess(L"C:\\e.exe");
    SetProcessQueryHook([](ULONG, ULONG) { return QueryAnswer{STATUS_SUCCESS, 0}; });
    EXPECT_THAT(PrintsOf([&] { EXPECT_EQ(agent_.AddProcess(L"C:\\e.exe"), Added(Id(0))); }),
        testing::Contains("Tarnveil - GetProcessImageNameFromProcessId Failed: 0x00000000L\n"));
    EXPECT_EQ(agent_.IsUnderSandbox(editor.ProcessId()).Value, 0u);
}

TEST_F(ProcessScanTest, AMonitoredParentMayBecomeAProcessToo)
{
    const Program both = machine_.StartProcess(L"C:\\b.exe");
    agent_.AddParentProcess(L"C:\\b.exe");
    agent_.AddProcess(L"C:\\b.exe");
    ULONG id = 0;
    EXPECT_TRUE(FindMonitoredParent(both.Id(), &id));
    EXPECT_EQ(id, Id(0));
    EXPECT_TRUE(FindMonitoredProcess(both.Id(), 1, &id));
    EXPECT_EQ(id, Id(1));
}

TEST_F(ProcessScanTest, AMonitoredProcessDoesNotBecomeAParent)
{
    const Program both = machine_.StartProcess(L"C:\\b.exe");
    agent_.AddProcess(L"C:\\b.exe");
    agent_.AddParentProcess(L"C:\\b.exe");
    ULONG id = 0;
    EXPECT_FALSE(FindMonitoredParent(both.Id(), &id));
}

TEST_F(ProcessScanTest, AProcessThatCannotBeInspectedIsPassedOver)
{
    const Program program = machine_.StartProcess(L"C:\\b.exe");
    FailRoutine("PsLookupProcessByProcessId", 1, true);
    ControlAnswer answer;
    const auto prints = PrintsOf([&] { answer = agent_.AddProcess(L"C:\\b.exe"); });
    ResetFailures();
    EXPECT_EQ(answer, Added(Id(0)));
    EXPECT_THAT(prints, testing::Contains("Tarnveil - GetProcessImageNameFromProcessId Failed: 0xC000000DL\n"));
    EXPECT_EQ(agent_.IsUnderSandbox(program.ProcessId()).Value, 0u);
}

// A chain of records of processes that each created the next.
class Ancestry
{
public:
    explicit Ancestry(size_t count) : records_(count)
    {
        for (size_t i = 0; i < count; ++i)
        {
            records_[i].NextEntryOffset = i + 1 < count ? sizeof(SYSTEM_PROCESS_INFORMATION) : 0;
            records_[i].CreateTime.QuadPart = static_cast<LONGLONG>(i);
            records_[i].UniqueProcessId = Id(i);
            records_[i].InheritedFromUniqueProcessId = i == 0 ? nullptr : Id(i - 1);
        }
    }
    static HANDLE Id(size_t i) { return reinterpret_cast<HANDLE>(0x10000 + 4 * i); }
    SYSTEM_PROCESS_INFORMATION& operator[](size_t i) { return records_[i]; }
    const SYSTEM_PROCESS_INFORMATION* First() const { return records_.data(); }

private:
    std::vector<SYSTEM_PROCESS_INFORMATION> records_;
};

TEST_F(ProcessScanTest, ACreatorIsNotYoungerThanItsProcess)
{
    Ancestry chain(3);
    EXPECT_EQ(FindCreatorRecord(chain.First(), &chain[2]), &chain[1]);
    EXPECT_EQ(FindCreatorRecord(chain.First(), &chain[0]), nullptr);
    chain[1].CreateTime = chain[2].CreateTime;
    EXPECT_EQ(FindCreatorRecord(chain.First(), &chain[2]), &chain[1]);
    chain[1].CreateTime.QuadPart = 3;
    EXPECT_EQ(FindCreatorRecord(chain.First(), &chain[2]), nullptr);
    chain[0].UniqueProcessId = Ancestry::Id(1);
    EXPECT_EQ(FindCreatorRecord(chain.First(), &chain[2]), &chain[0]);
}

TEST_F(ProcessScanTest, TheFiftySecondAncestorIsTheLastOneExamined)
{
    const Program root = machine_.StartProcess(L"C:\\root.exe");
    std::vector<Program> line = {root};
    for (int i = 0; i < 53; ++i)
    {
        line.push_back(line.back().Start(L"C:\\c.exe"));
    }
    agent_.AddParentProcess(L"C:\\root.exe");
    EXPECT_EQ(agent_.IsUnderSandbox(line[52].ProcessId()).Value, 1u);
    EXPECT_EQ(agent_.IsUnderSandbox(line[53].ProcessId()).Value, 0u);
    EXPECT_EQ(agent_.PidList().Count, 52u);
}
}
