// Following processes as they start and exit.
#include "driver/process/monitored_process.h"
#include "tests/unit/driver/process/agent_fixture.h"

using namespace agent_test;

namespace
{
class ProcessNotifyTest : public AgentTest
{
protected:
    bool IsUnder(const Program& program)
    {
        const ControlAnswer answer = agent_.IsUnderSandbox(program.ProcessId());
        EXPECT_EQ(answer.Status, STATUS_SUCCESS);
        return answer.Value == 1;
    }
    std::string Created(const char* outcome, ULONG id, ULONG parent, const Program& program, const char* name)
    {
        return Text("PROC = CREATED status = %s id = %u ppid = %u pid = %u name = %s", outcome, id, parent,
            program.ProcessId(), name);
    }
    std::string Exited(const char* outcome, ULONG id, const Program& program)
    {
        return Text("PROC = EXITS status = %s id = %u pid = %u", outcome, id, program.ProcessId());
    }
    static ULONG System() { return static_cast<ULONG>(reinterpret_cast<ULONG_PTR>(SystemProcess()->Id)); }
};

TEST_F(ProcessNotifyTest, DescendantsOfAParentAreChildrenToAnyDepth)
{
    agent_.AddParentProcess(L"C:\\Tools\\Launcher.exe");
    Listen();
    const Program launcher = machine_.StartProcess(L"C:\\Tools\\Launcher.exe");
    const Program child = launcher.Start(L"C:\\x\\child.exe");
    const Program grandchild = child.Start(L"C:\\x\\grandchild.exe");
    EXPECT_THAT(agent_.DrainLog(),
        ElementsAre(
            LogRecord{0x40, System(), "System", Created("ADDED_PARENT", Id(0), System(), launcher, "Launcher.exe")},
            LogRecord{0x40, launcher.ProcessId(), "Launcher.exe",
                Created("ADDED_CHILD", Id(0), launcher.ProcessId(), child, "child.exe")},
            LogRecord{0x40, child.ProcessId(), "child.exe",
                Created("ADDED_CHILD", Id(0), child.ProcessId(), grandchild, "grandchild.exe")}));
    EXPECT_TRUE(IsUnder(launcher));
    EXPECT_TRUE(IsUnder(child));
    EXPECT_TRUE(IsUnder(grandchild));
    ULONG id = 77777;
    EXPECT_TRUE(FindMonitoredParent(launcher.Id(), &id));
    EXPECT_EQ(id, Id(0));
    EXPECT_FALSE(FindMonitoredProcess(launcher.Id(), 3, &id));
    EXPECT_TRUE(FindMonitoredProcess(grandchild.Id(), 2, &id));
    EXPECT_FALSE(FindMonitoredProcess(grandchild.Id(), 1, &id));
}

TEST_F(ProcessNotifyTest, AProcessSettingHandsNothingOn)
{
    agent_.AddProcess(L"C:\\Apps\\Editor.exe");
    Listen();
    const Program editor = machine_.StartProcess(L"C:\\Apps\\EDITOR.exe");
    const Program helper = editor.Start(L"C:\\Apps\\helper.exe");
    EXPECT_TRUE(IsUnder(editor));
    EXPECT_FALSE(IsUnder(helper));
    EXPECT_THAT(Messages(), ElementsAre(Created("ADDED_PROCESS", Id(0), System(), editor, "EDITOR.exe")));
    ULONG id = 0;
    EXPECT_TRUE(FindMonitoredProcess(editor.Id(), 1, &id));
    EXPECT_FALSE(FindMonitoredProcess(editor.Id(), 2, &id));
}

TEST_F(ProcessNotifyTest, AnExclusionGoesFirst)
{
    agent_.AddProcess(L"C:\\a.exe");
    agent_.AddParentProcess(L"C:\\a.exe");
    agent_.AddExclusion(L"C:\\a.exe");
    Listen();
    const Program program = machine_.StartProcess(L"C:\\a.exe");
    EXPECT_FALSE(IsUnder(program));
    EXPECT_THAT(Messages(), ElementsAre(Created("EXCLUDED", Id(2), System(), program, "a.exe")));
}

TEST_F(ProcessNotifyTest, AnExcludedChildHandsNothingOn)
{
    agent_.AddParentProcess(L"C:\\p.exe");
    agent_.AddExclusion(L"C:\\a.exe");
    const Program parent = machine_.StartProcess(L"C:\\p.exe");
    const Program excluded = parent.Start(L"C:\\a.exe");
    const Program child = excluded.Start(L"C:\\c.exe");
    EXPECT_FALSE(IsUnder(excluded));
    EXPECT_FALSE(IsUnder(child));
}

TEST_F(ProcessNotifyTest, AnImageOfBothKindsEntersBothLists)
{
    agent_.AddParentProcess(L"C:\\a.exe");
    agent_.AddProcess(L"C:\\a.exe");
    Listen();
    const Program program = machine_.StartProcess(L"C:\\a.exe");
    EXPECT_THAT(Messages(), ElementsAre(Created("ADDED_PARENT", Id(0), System(), program, "a.exe"),
                                Created("ADDED_PROCESS", Id(1), System(), program, "a.exe")));
    ULONG id = 0;
    EXPECT_TRUE(FindMonitoredParent(program.Id(), &id));
    EXPECT_EQ(id, Id(0));
    EXPECT_TRUE(FindMonitoredProcess(program.Id(), 1, &id));
    EXPECT_EQ(id, Id(1));
    program.Exit();
    EXPECT_THAT(
        Messages(), ElementsAre(Exited("DELETED_PARENT", Id(0), program), Exited("DELETED_PROCESS", Id(1), program)));
}

TEST_F(ProcessNotifyTest, AParentIsNeverItsCreatorsChild)
{
    agent_.AddParentProcess(L"C:\\a.exe");
    const Program outer = machine_.StartProcess(L"C:\\a.exe");
    const Program inner = outer.Start(L"C:\\a.exe");
    ULONG id = 0;
    EXPECT_TRUE(FindMonitoredParent(inner.Id(), &id));
    EXPECT_FALSE(FindMonitoredProcess(inner.Id(), 3, &id));
}

TEST_F(ProcessNotifyTest, AProgramWithoutAnySettingIsLeftAlone)
{
    Listen();
    const Program program = machine_.StartProcess(L"C:\\a.exe");
    EXPECT_FALSE(IsUnder(program));
    program.Exit();
    EXPECT_THAT(Messages(), IsEmpty());
}

TEST_F(ProcessNotifyTest, AnExitIsRecordedInTheExitingProcess)
{
    agent_.AddParentProcess(L"C:\\p.exe");
    const Program parent = machine_.StartProcess(L"C:\\p.exe");
    const Program child = parent.Start(L"C:\\c.exe");
    Listen();
    parent.Exit();
    EXPECT_THAT(agent_.DrainLog(),
        ElementsAre(LogRecord{0x40, parent.ProcessId(), "p.exe", Exited("DELETED_PARENT", Id(0), parent)}));
    EXPECT_FALSE(IsUnder(parent));
    // The child goes on handing it down.
    const Program grandchild = child.Start(L"C:\\g.exe");
    EXPECT_TRUE(IsUnder(grandchild));
    Listen();
    child.Exit();
    EXPECT_THAT(Messages(), ElementsAre(Exited("DELETED_CHILD", Id(0), child)));
}

TEST_F(ProcessNotifyTest, DeletingASettingForgetsAllThatItPutThere)
{
    agent_.AddParentProcess(L"C:\\p.exe");
    const Program parent = machine_.StartProcess(L"C:\\p.exe");
    const Program child = parent.Start(L"C:\\c.exe");
    Listen();
    EXPECT_EQ(agent_.DelProcess(Id(0)), STATUS_SUCCESS);
    EXPECT_THAT(Messages(),
        ElementsAre(Text("IRP = DEV_CTRL IOCTL = DEL_PROCESS status = DELETED_SETTING id = %u path = C:\\p.exe", Id(0)),
            Text("IRP = DEV_CTRL IOCTL = DEL_PROCESS status = DELETED_PARENT id = %u pid = %u", Id(0),
                parent.ProcessId()),
            Text("IRP = DEV_CTRL IOCTL = DEL_PROCESS status = DELETED_CHILD id = %u pid = %u", Id(0),
                child.ProcessId())));
    EXPECT_FALSE(IsUnder(parent));
    EXPECT_FALSE(IsUnder(child));
}

TEST_F(ProcessNotifyTest, StopForgetsAllProcesses)
{
    agent_.AddParentProcess(L"C:\\p.exe");
    agent_.AddProcess(L"C:\\p.exe");
    const Program parent = machine_.StartProcess(L"C:\\p.exe");
    const Program child = parent.Start(L"C:\\c.exe");
    agent_.As([&] { EXPECT_EQ(agent_.DelProcess(77777777), STATUS_SUCCESS); });
    Listen();
    EXPECT_EQ(agent_.StopDriver(), STATUS_SUCCESS);
    EXPECT_THAT(Messages(),
        ElementsAre(Text("IRP = DEV_CTRL IOCTL = STOP status = DELETED_SETTING id = %u path = C:\\p.exe", Id(0)),
            Text("IRP = DEV_CTRL IOCTL = STOP status = DELETED_SETTING id = %u path = C:\\p.exe", Id(1)),
            Text("IRP = DEV_CTRL IOCTL = STOP status = DELETED_PARENT id = %u pid = %u", Id(0), parent.ProcessId()),
            Text("IRP = DEV_CTRL IOCTL = STOP status = DELETED_PROCESS id = %u pid = %u", Id(1), parent.ProcessId()),
            Text("IRP = DEV_CTRL IOCTL = STOP status = DELETED_CHILD id = %u pid = %u", Id(0), child.ProcessId())));
    EXPECT_FALSE(IsUnder(parent));
    EXPECT_FALSE(IsUnder(child));
}

TEST_F(ProcessNotifyTest, DecisionsAreTracedOnDemand)
{
    agent_.AddParentProcess(L"C:\\p.exe");
    agent_.AddProcess(L"C:\\a.exe");
    agent_.AddExclusion(L"C:\\e.exe");
    Global.VerboseTrace = TRUE;
    using testing::Contains;
    Program parent = agent_;
    Program child = agent_;
    EXPECT_THAT(PrintsOf([&] { parent = machine_.StartProcess(L"C:\\p.exe"); }),
        Contains("Tarnveil - ParentProcessNameList:Exist: C:\\p.exe\n"));
    EXPECT_THAT(PrintsOf([&] { child = parent.Start(L"C:\\c.exe"); }),
        Contains("Tarnveil - MonitoredParentProcessList:Exist: C:\\c.exe\n"));
    EXPECT_THAT(
        PrintsOf([&] { child.Start(L"C:\\g.exe"); }), Contains("Tarnveil - MonitoredProcessList:Exist: C:\\g.exe\n"));
    EXPECT_THAT(PrintsOf([&] { machine_.StartProcess(L"C:\\a.exe"); }),
        Contains("Tarnveil - ProcessNameList:Exist: C:\\a.exe\n"));
    EXPECT_THAT(PrintsOf([&] { machine_.StartProcess(L"C:\\e.exe"); }),
        Contains("Tarnveil - ExclusionProcessNameList:Exist: C:\\e.exe\n"));
}

TEST_F(ProcessNotifyTest, WithoutAnImagePathAProcessStaysUntracked)
{
    agent_.AddProcess(L"C:\\a.exe");
    Listen();
    FailRoutine("IoVolumeDeviceToDosName", 1, true);
    Program program = agent_;
    const auto prints = PrintsOf([&] { program = machine_.StartProcess(L"C:\\a.exe"); });
    const uint64_t failed = InjectedFailures();
    ResetFailures();
    ASSERT_GT(failed, 0u);
    EXPECT_THAT(prints, testing::Contains("Tarnveil - GetFileNameFromCreateInfo failed c000009a\n"));
    EXPECT_FALSE(IsUnder(program));
    EXPECT_THAT(Messages(), IsEmpty());
}
}
