// Which programs are under the sandbox, as the agent sets it and asks for it.
#include "tests/scenario/agent_scenario.h"
#include "tests/scenario/driver_under_test.h"

namespace scenario_test
{
namespace
{
using ProcessSettings = AgentScenario;

TEST_F(ProcessSettings, AllKindsShareTheirNumbersAndDeletedOnesComeBackOldestFirst)
{
    EXPECT_EQ(agent_.AddParentProcess(L"C:\\a.exe"), Added(Id(0)));
    EXPECT_EQ(agent_.AddProcess(L"C:\\b.exe"), Added(Id(1)));
    EXPECT_EQ(agent_.AddExclusion(L"C:\\c.exe"), Added(Id(2)));
    EXPECT_EQ(agent_.DelProcess(Id(1)), STATUS_SUCCESS);
    EXPECT_EQ(agent_.DelProcess(Id(0)), STATUS_SUCCESS);
    EXPECT_EQ(agent_.DelProcess(Id(1)), STATUS_SUCCESS) << "deleted already";
    EXPECT_EQ(agent_.AddProcess(L"C:\\d.exe"), Added(Id(1)));
    EXPECT_EQ(agent_.AddExclusion(L"C:\\e.exe"), Added(Id(0)));
    EXPECT_EQ(agent_.AddParentProcess(L"C:\\f.exe"), Added(Id(3)));
}

TEST_F(ProcessSettings, ThePathInAnotherCaseIsTheSameSetting)
{
    EXPECT_EQ(agent_.AddProcess(L"C:\\Apps\\Tool.exe"), Added(Id(0)));
    EXPECT_EQ(agent_.AddProcess(L"c:\\apps\\TOOL.EXE"), Added(Id(0)));
    EXPECT_EQ(agent_.AddParentProcess(L"C:\\Apps\\Tool.exe"), Added(Id(1))) << "each list has its own";
    EXPECT_EQ(agent_.AddExclusion(L"C:\\Apps\\Tool.exe"), Added(Id(2)));
}

TEST_F(ProcessSettings, AWildcardStandsForItself)
{
    EXPECT_EQ(agent_.AddProcess(L"C:\\Apps\\*.exe"), Added(Id(0)));
    EXPECT_FALSE(IsUnder(machine_.StartProcess(L"C:\\Apps\\Tool.exe")));
}

TEST_F(ProcessSettings, DescendantsOfAParentJoinToAnyDepth)
{
    agent_.AddParentProcess(L"C:\\Tools\\Launcher.exe");
    const Program launcher = machine_.StartProcess(L"C:\\Tools\\Launcher.exe");
    EXPECT_TRUE(IsUnder(launcher)) << "a monitored parent counts";
    EXPECT_EQ(agent_.IsExistUnderSandbox(), (ControlAnswer{STATUS_SUCCESS, 0})) << "but does not fill the sandbox";
    EXPECT_THAT(agent_.PidList().Ids, IsEmpty());
    const Program child = launcher.Start(L"C:\\x\\child.exe");
    const Program grandchild = child.Start(L"C:\\x\\grandchild.exe");
    EXPECT_TRUE(IsUnder(child));
    EXPECT_TRUE(IsUnder(grandchild));
    EXPECT_FALSE(IsUnder(agent_));
    EXPECT_EQ(agent_.IsExistUnderSandbox(), (ControlAnswer{STATUS_SUCCESS, 1}));
    EXPECT_THAT(agent_.PidList().Ids, ElementsAre(child.ProcessId(), grandchild.ProcessId()));
}

TEST_F(ProcessSettings, AProcessSettingHandsNothingOn)
{
    agent_.AddProcess(L"C:\\Apps\\Editor.exe");
    const Program editor = machine_.StartProcess(L"C:\\Apps\\Editor.exe");
    EXPECT_TRUE(IsUnder(editor));
    EXPECT_FALSE(IsUnder(editor.Start(L"C:\\Apps\\helper.exe")));
}

TEST_F(ProcessSettings, AnExclusionGoesBeforeEverything)
{
    agent_.AddProcess(L"C:\\a.exe");
    agent_.AddParentProcess(L"C:\\a.exe");
    agent_.AddParentProcess(L"C:\\p.exe");
    EXPECT_EQ(agent_.AddExclusion(L"C:\\a.exe"), Added(Id(3)));
    EXPECT_FALSE(IsUnder(machine_.StartProcess(L"C:\\a.exe")));
    const Program parent = machine_.StartProcess(L"C:\\p.exe");
    const Program excluded = parent.Start(L"C:\\a.exe");
    EXPECT_FALSE(IsUnder(excluded));
    EXPECT_FALSE(IsUnder(excluded.Start(L"C:\\c.exe"))) << "judged by its own image only";
    EXPECT_EQ(agent_.DelProcess(Id(3)), STATUS_SUCCESS);
    EXPECT_TRUE(IsUnder(machine_.StartProcess(L"C:\\a.exe")));
}

TEST_F(ProcessSettings, AnImageOfBothKindsIsParentAndProcess)
{
    agent_.AddParentProcess(L"C:\\a.exe");
    agent_.AddProcess(L"C:\\a.exe");
    const Program both = machine_.StartProcess(L"C:\\a.exe");
    EXPECT_TRUE(IsUnder(both));
    EXPECT_THAT(agent_.PidList().Ids, ElementsAre(both.ProcessId()));
    const Program child = both.Start(L"C:\\c.exe");
    EXPECT_TRUE(IsUnder(child)) << "as the parent's";
    // Without the parent's setting only its own is left.
    EXPECT_EQ(agent_.DelProcess(Id(0)), STATUS_SUCCESS);
    EXPECT_TRUE(IsUnder(both));
    EXPECT_FALSE(IsUnder(child));
}

TEST_F(ProcessSettings, RunningProgramsJoinWhenTheSettingComes)
{
    const Program launcher = machine_.StartProcess(L"C:\\Tools\\Launcher.exe");
    const Program child = launcher.Start(L"C:\\c.exe");
    const Program grandchild = child.Start(L"C:\\g.exe");
    const Program editor = machine_.StartProcess(L"C:\\e.exe");
    const Program helper = editor.Start(L"C:\\h.exe");
    EXPECT_FALSE(IsUnder(launcher));
    for (int i = 0; i < 2; ++i)
    {
        // The second time changes nothing.
        EXPECT_EQ(agent_.AddParentProcess(L"C:\\tools\\launcher.EXE"), Added(Id(0)));
        EXPECT_EQ(agent_.AddProcess(L"C:\\e.exe"), Added(Id(1)));
        EXPECT_TRUE(IsUnder(launcher));
        EXPECT_FALSE(IsUnder(helper));
        EXPECT_THAT(agent_.PidList().Ids, ElementsAre(child.ProcessId(), grandchild.ProcessId(), editor.ProcessId()));
    }
}

TEST_F(ProcessSettings, AnExclusionLeavesRunningProgramsWhereTheyAre)
{
    agent_.AddProcess(L"C:\\e.exe");
    const Program editor = machine_.StartProcess(L"C:\\e.exe");
    agent_.AddExclusion(L"C:\\e.exe");
    EXPECT_TRUE(IsUnder(editor));
    EXPECT_FALSE(IsUnder(machine_.StartProcess(L"C:\\e.exe")));
}

TEST_F(ProcessSettings, WhoExitsLeavesAndDescendantsStay)
{
    agent_.AddParentProcess(L"C:\\p.exe");
    const Program parent = machine_.StartProcess(L"C:\\p.exe");
    const Program child = parent.Start(L"C:\\c.exe");
    const ULONG parentId = parent.ProcessId();
    parent.Exit();
    EXPECT_EQ(agent_.IsUnderSandbox(parentId), (ControlAnswer{STATUS_SUCCESS, 0}));
    EXPECT_TRUE(IsUnder(child));
    const Program grandchild = child.Start(L"C:\\g.exe");
    EXPECT_TRUE(IsUnder(grandchild));
    child.Exit();
    EXPECT_THAT(agent_.PidList().Ids, ElementsAre(grandchild.ProcessId()));
    grandchild.Exit();
    EXPECT_EQ(agent_.IsExistUnderSandbox(), (ControlAnswer{STATUS_SUCCESS, 0}));
}

TEST_F(ProcessSettings, ThePidListTellsHowMuchRoomItNeeds)
{
    ControlResult result = agent_.DeviceControl(IOCTL_GET_PID_LIST_UNDER_SANDBOX, {}, 4);
    EXPECT_EQ(result.Status, STATUS_SUCCESS);
    EXPECT_EQ(result.Output, std::string(4, '\0')) << "an empty list needs the count only";
    agent_.AddProcess(L"C:\\e.exe");
    std::string expected("\3\0\0\0", 4);
    for (int i = 0; i < 3; ++i)
    {
        const ULONG id = machine_.StartProcess(L"C:\\e.exe").ProcessId();
        expected.append(reinterpret_cast<const char*>(&id), sizeof(id));
    }
    result = agent_.DeviceControl(IOCTL_GET_PID_LIST_UNDER_SANDBOX, {}, 8);
    EXPECT_EQ(result.Status, STATUS_BUFFER_TOO_SMALL);
    EXPECT_EQ(result.Output.substr(0, 4), expected.substr(0, 4));
    result = agent_.DeviceControl(IOCTL_GET_PID_LIST_UNDER_SANDBOX, {}, 16);
    EXPECT_EQ(result.Status, STATUS_SUCCESS);
    EXPECT_EQ(result.Output, expected);
    EXPECT_EQ(agent_.DeviceControl(IOCTL_GET_PID_LIST_UNDER_SANDBOX, {}, 3).Status, STATUS_BUFFER_TOO_SMALL);
}

TEST_F(ProcessSettings, DeletingASettingForgetsAllThatItPutThere)
{
    agent_.AddParentProcess(L"C:\\p.exe");
    agent_.AddProcess(L"C:\\e.exe");
    const Program parent = machine_.StartProcess(L"C:\\p.exe");
    const Program child = parent.Start(L"C:\\c.exe");
    const Program editor = machine_.StartProcess(L"C:\\e.exe");
    EXPECT_EQ(agent_.DelProcess(Id(0)), STATUS_SUCCESS);
    EXPECT_FALSE(IsUnder(parent));
    EXPECT_FALSE(IsUnder(child));
    EXPECT_TRUE(IsUnder(editor));
    EXPECT_FALSE(IsUnder(child.Start(L"C:\\g.exe")));
}

TEST_F(ProcessSettings, StopForgetsEverythingAndStartBringsNothingBack)
{
    agent_.AddParentProcess(L"C:\\p.exe");
    agent_.AddProcess(L"C:\\e.exe");
    agent_.AddExclusion(L"C:\\x.exe");
    const Program parent = machine_.StartProcess(L"C:\\p.exe");
    const Program child = parent.Start(L"C:\\c.exe");
    const Program editor = machine_.StartProcess(L"C:\\e.exe");
    EXPECT_EQ(agent_.StopDriver(), STATUS_SUCCESS);
    for (const Program& program :
        {parent, child, editor, child.Start(L"C:\\g.exe"), machine_.StartProcess(L"C:\\e.exe")})
    {
        EXPECT_FALSE(IsUnder(program));
    }
    EXPECT_EQ(agent_.StartDriver(), STATUS_SUCCESS);
    EXPECT_FALSE(IsUnder(editor));
    EXPECT_FALSE(IsUnder(machine_.StartProcess(L"C:\\e.exe")));
    // Without a start settings work as well.
    EXPECT_EQ(agent_.StopDriver(), STATUS_SUCCESS);
    EXPECT_EQ(agent_.AddProcess(L"C:\\e.exe").Status, STATUS_SUCCESS);
    EXPECT_TRUE(IsUnder(editor));
}

TEST_F(ProcessSettings, APathThatIsNoDrivePathIsRefusedAndNotKept)
{
    EXPECT_EQ(agent_.AddProcess(L"Editor.exe").Status, STATUS_INVALID_PARAMETER);
    EXPECT_EQ(agent_.AddParentProcess(L"Editor.exe").Status, STATUS_INVALID_PARAMETER);
    EXPECT_EQ(agent_.AddProcess(L"C:\\e.exe"), Added(Id(0))) << "their number is free again";
}

TEST_F(ProcessSettings, SettingsEndWithTheDriver)
{
    agent_.AddProcess(L"C:\\e.exe");
    const Program editor = machine_.StartProcess(L"C:\\e.exe");
    ASSERT_EQ(machine_.UnloadDriver(), STATUS_SUCCESS);
    EXPECT_EQ(agent_.IsUnderSandbox(editor.ProcessId()).Status, STATUS_OBJECT_NAME_NOT_FOUND);
    ASSERT_EQ(machine_.LoadDriver(scenario_test::DriverUnderTest()), STATUS_SUCCESS);
    EXPECT_FALSE(IsUnder(editor));
    EXPECT_FALSE(IsUnder(machine_.StartProcess(L"C:\\e.exe")));
}
}
}
