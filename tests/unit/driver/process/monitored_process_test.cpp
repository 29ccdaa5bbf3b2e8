// The lists of live processes.
#include "driver/process/monitored_process.h"
#include "tests/unit/driver/process/agent_fixture.h"

using namespace agent_test;

namespace
{
HANDLE Pid(ULONG id)
{
    return reinterpret_cast<HANDLE>(static_cast<ULONG_PTR>(id));
}

class MonitoredProcessTest : public AgentTest
{
protected:
    NTSTATUS Insert(ULONG pid, ULONG kind, ULONG setting)
    {
        return InsertMonitoredProcess(AsProcess(agent_.Object()), Pid(pid), kind, setting);
    }
    NTSTATUS InsertParent(ULONG pid, ULONG setting)
    {
        return InsertMonitoredParent(AsProcess(agent_.Object()), Pid(pid), setting);
    }
};

TEST_F(MonitoredProcessTest, ANullProcessOrIdIsRefused)
{
    EXPECT_EQ(InsertMonitoredParent(nullptr, Pid(1000), 1), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(InsertParent(0, 1), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(InsertMonitoredProcess(nullptr, Pid(1000), 1, 1), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(Insert(0, 1, 1), STATUS_INVALID_PARAMETER);
    EXPECT_TRUE(IsMonitoredProcessListEmpty());
    ULONG id = 77;
    EXPECT_FALSE(FindMonitoredParent(nullptr, &id));
    EXPECT_FALSE(FindMonitoredProcess(nullptr, 3, &id));
    EXPECT_EQ(id, 77u);
}

TEST_F(MonitoredProcessTest, WithoutMemoryNothingIsInserted)
{
    FailRoutine("ExAllocatePoolWithTag", 1, true);
    EXPECT_EQ(InsertParent(1000, 1), STATUS_MEMORY_NOT_ALLOCATED);
    EXPECT_EQ(Insert(1000, 1, 1), STATUS_MEMORY_NOT_ALLOCATED);
    ResetFailures();
    ULONG id = 77;
    EXPECT_FALSE(FindMonitoredParent(Pid(1000), &id));
    EXPECT_TRUE(IsMonitoredProcessListEmpty());
}

TEST_F(MonitoredProcessTest, TheFirstEntryOfAKindInTheMaskIsFound)
{
    EXPECT_EQ(Insert(1000, 1, 11), STATUS_SUCCESS);
    EXPECT_EQ(Insert(1000, 2, 12), STATUS_SUCCESS);
    ULONG id = 0;
    EXPECT_TRUE(FindMonitoredProcess(Pid(1000), 3, &id));
    EXPECT_EQ(id, 11u);
    EXPECT_TRUE(FindMonitoredProcess(Pid(1000), 2, &id));
    EXPECT_EQ(id, 12u);
    EXPECT_FALSE(FindMonitoredProcess(Pid(1000), 4, &id));
    EXPECT_FALSE(FindMonitoredProcess(Pid(1004), 3, &id));
    EXPECT_FALSE(FindMonitoredParent(Pid(1000), &id));
}

TEST_F(MonitoredProcessTest, ThePidListTellsHowMuchRoomItNeeds)
{
    Insert(1000, 1, 1);
    Insert(1004, 2, 1);
    Insert(1008, 1, 2);
    for (const ULONG size : {4u, 8u, 15u})
    {
        const ControlResult result = agent_.DeviceControl(IOCTL_GET_PID_LIST_UNDER_SANDBOX, {}, size);
        EXPECT_EQ(result.Status, STATUS_BUFFER_TOO_SMALL);
        EXPECT_EQ(result.Information, 0u);
        EXPECT_EQ(result.Output, std::string("\3\0\0\0", 4) + std::string(size - 4, '\xEE'));
    }
}

TEST_F(MonitoredProcessTest, ThePidListHasTheIdsInListOrder)
{
    Insert(1008, 1, 1);
    Insert(1000, 2, 1);
    Insert(1008, 2, 2);
    InsertParent(2000, 3);
    EXPECT_THAT(PrintsOf(
                    [&]
                    {
                        const PidListAnswer answer = agent_.PidList(3);
                        EXPECT_EQ(answer.Status, STATUS_SUCCESS);
                        EXPECT_EQ(answer.Count, 3u);
                        EXPECT_THAT(answer.Ids, ElementsAre(1008u, 1000u, 1008u));
                    }),
        ElementsAre("Tarnveil - IOCTL_GET_PID_LIST_UNDER_SANDBOX\n"));
}

TEST_F(MonitoredProcessTest, AnEmptyPidListFitsIntoFourBytes)
{
    const ControlResult result = agent_.DeviceControl(IOCTL_GET_PID_LIST_UNDER_SANDBOX, {}, 4);
    EXPECT_EQ(result.Status, STATUS_SUCCESS);
    EXPECT_EQ(result.Information, 0u);
    EXPECT_EQ(result.Output, std::string(4, '\0'));
    EXPECT_EQ(agent_.DeviceControl(IOCTL_GET_PID_LIST_UNDER_SANDBOX, {}, 3).Status, STATUS_BUFFER_TOO_SMALL);
    EXPECT_EQ(GetMonitoredPidList(nullptr, 100), STATUS_INVALID_PARAMETER);
}

TEST_F(MonitoredProcessTest, AParentIsUnderTheSandboxButDoesNotFillIt)
{
    InsertParent(1000, 1);
    Global.VerboseTrace = TRUE;
    EXPECT_THAT(PrintsOf([&] { EXPECT_EQ(agent_.IsUnderSandbox(1000), (ControlAnswer{STATUS_SUCCESS, 1})); }),
        ElementsAre("Tarnveil - IOCTL_IS_UNDER_SANDBOX :PID[1000]:TRUE\n"));
    EXPECT_THAT(PrintsOf([&] { EXPECT_EQ(agent_.IsUnderSandbox(1004), (ControlAnswer{STATUS_SUCCESS, 0})); }),
        ElementsAre("Tarnveil - IOCTL_IS_UNDER_SANDBOX :PID[1004]:FALSE\n"));
    EXPECT_THAT(PrintsOf([&] { EXPECT_EQ(agent_.IsExistUnderSandbox(), (ControlAnswer{STATUS_SUCCESS, 0})); }),
        ElementsAre("Tarnveil - IOCTL_IS_EXIST_UNDER_SANDBOX :FALSE\n"));
    Insert(1000, 1, 1);
    EXPECT_THAT(PrintsOf([&] { EXPECT_EQ(agent_.IsExistUnderSandbox(), (ControlAnswer{STATUS_SUCCESS, 1})); }),
        ElementsAre("Tarnveil - IOCTL_IS_EXIST_UNDER_SANDBOX :TRUE\n"));
}

TEST_F(MonitoredProcessTest, RemovingMatchesTheProcessOrTheSetting)
{
    Insert(1000, 1, 7);
    Insert(1004, 2, 7);
    Insert(1000, 2, 8);
    Listen();
    RemoveMonitoredProcessesByProcess(Pid(1000));
    EXPECT_THAT(Messages(), ElementsAre("PROC = EXITS status = DELETED_PROCESS id = 7 pid = 1000",
                                "PROC = EXITS status = DELETED_CHILD id = 8 pid = 1000"));
    EXPECT_THAT(agent_.PidList().Ids, ElementsAre(1004u));
    RemoveMonitoredProcessesById(7);
    EXPECT_TRUE(IsMonitoredProcessListEmpty());
    EXPECT_THAT(Messages(), ElementsAre("IRP = DEV_CTRL IOCTL = DEL_PROCESS status = DELETED_CHILD id = 7 pid = 1004"));
}

TEST_F(MonitoredProcessTest, WithoutTheLogFlagAClearIsSilent)
{
    Insert(1000, 1, 7);
    InsertParent(1000, 7);
    Listen();
    ClearMonitoredParents(false);
    ClearMonitoredProcesses(false);
    EXPECT_THAT(Messages(), IsEmpty());
    EXPECT_TRUE(IsMonitoredProcessListEmpty());
    EXPECT_EQ(agent_.IsUnderSandbox(1000).Value, 0u);
}

TEST_F(MonitoredProcessTest, WithoutMemoryForTheArrayARemovalGoesUnrecorded)
{
    Insert(1000, 1, 7);
    Listen();
    FailRoutine("ExAllocatePoolWithTag");
    RemoveMonitoredProcessesByProcess(Pid(1000));
    EXPECT_EQ(InjectedFailures(), 1u);
    ResetFailures();
    EXPECT_TRUE(IsMonitoredProcessListEmpty());
    EXPECT_THAT(Messages(), IsEmpty());
}
}
