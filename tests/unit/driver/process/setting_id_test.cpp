// The numbers of settings.
#include "tests/unit/driver/process/agent_fixture.h"

#include <unistd.h>

using namespace agent_test;

namespace
{
using SettingIdTest = AgentTest;

TEST_F(SettingIdTest, NumbersCountUpWithoutDeletions)
{
    EXPECT_EQ(IssueId(), Id(0));
    EXPECT_EQ(IssueId(), Id(1));
    EXPECT_EQ(IssueId(), Id(2));
    EXPECT_THAT(machine_.DebugPrints(), ElementsAre("Tarnveil.sys: ", Text("[IDMan] IssueId = %u\n", Id(0)),
                                            "Tarnveil.sys: ", Text("[IDMan] IssueId = %u\n", Id(1)),
                                            "Tarnveil.sys: ", Text("[IDMan] IssueId = %u\n", Id(2))));
}

TEST_F(SettingIdTest, AddsOfAllKindsShareOneCounter)
{
    EXPECT_EQ(agent_.AddParentProcess(L"C:\\a.exe"), Added(Id(0)));
    EXPECT_EQ(agent_.AddProcess(L"C:\\a.exe"), Added(Id(1)));
    EXPECT_EQ(agent_.AddExclusion(L"C:\\a.exe"), Added(Id(2)));
}

TEST_F(SettingIdTest, ReleasedNumbersComeBackInTheOrderOfTheirRelease)
{
    const ULONG first = IssueId();
    const ULONG second = IssueId();
    const ULONG third = IssueId();
    EXPECT_EQ(ReleaseId(second), STATUS_SUCCESS);
    EXPECT_EQ(ReleaseId(first), STATUS_SUCCESS);
    machine_.ClearDebugPrints();
    EXPECT_EQ(IssueId(), second);
    EXPECT_EQ(IssueId(), first);
    EXPECT_EQ(IssueId(), third + 1);
    EXPECT_THAT(machine_.DebugPrints(), ElementsAre("Tarnveil.sys: ", Text("[IDMan] ReuseId = %u\n", second),
                                            "Tarnveil.sys: ", Text("[IDMan] ReuseId = %u\n", first),
                                            "Tarnveil.sys: ", Text("[IDMan] IssueId = %u\n", third + 1)));
}

TEST_F(SettingIdTest, ANumberReleasedTwiceIsKeptOnce)
{
    const ULONG id = IssueId();
    machine_.ClearDebugPrints();
    EXPECT_EQ(ReleaseId(id), STATUS_SUCCESS);
    EXPECT_EQ(ReleaseId(id), STATUS_SUCCESS);
    EXPECT_THAT(machine_.DebugPrints(), ElementsAre("Tarnveil.sys: ", Text("[IDMan] ReleaseId = %u\n", id)));
    EXPECT_EQ(IssueId(), id);
    EXPECT_EQ(IssueId(), id + 1);
}

TEST_F(SettingIdTest, NumbersNeverIssuedAreIgnored)
{
    const ULONG id = IssueId();
    machine_.ClearDebugPrints();
    EXPECT_EQ(ReleaseId(id + 1), STATUS_SUCCESS);
    EXPECT_EQ(ReleaseId(0xffffffff), STATUS_SUCCESS);
    EXPECT_THAT(machine_.DebugPrints(), IsEmpty());
    EXPECT_EQ(IssueId(), id + 1);
}

TEST_F(SettingIdTest, WithoutMemoryAReleasedNumberIsLost)
{
    const ULONG id = IssueId();
    machine_.ClearDebugPrints();
    FailRoutine("ExAllocatePoolWithTag");
    EXPECT_EQ(ReleaseId(id), STATUS_INSUFFICIENT_RESOURCES);
    ResetFailures();
    EXPECT_THAT(
        machine_.DebugPrints(), ElementsAre("Tarnveil.sys: ", "[IDMan] ReleasedId information allocate error\n"));
    EXPECT_EQ(IssueId(), id + 1);
}

// The machine reports memory that is left behind.
TEST_F(SettingIdTest, UnloadForgetsReleasedNumbersAndTheNextLoadCountsFromZero)
{
    const ULONG id = IssueId();
    IssueId();
    ReleaseId(id);
    ASSERT_EQ(machine_.UnloadDriver(), STATUS_SUCCESS);
    ASSERT_EQ(machine_.LoadDriver(Image::Native), STATUS_SUCCESS);
    EXPECT_EQ(IssueId(), 0u);
    EXPECT_EQ(IssueId(), 1u);
}

void CheckFirstNumbers()
{
    IdManInitialize();
    const bool fromZero = IssueId() == 0 && IssueId() == 1 && IssueId() == 2;
    IdManFinalize();
    _exit(fromZero ? 0 : 1);
}

// In a program of its own, where nothing was issued before.
TEST(SettingIdDeathTest, TheFirstNumberIsZero)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(CheckFirstNumbers(), testing::ExitedWithCode(0), "");
}
}
