// The requests that ask who is under the sandbox: answers, statuses, what is traced.

#include "tests/unit/driver/core/request_fixture.h"

namespace request_test
{
namespace
{
using QueryRequest = RequestTest;

TEST_F(QueryRequest, UnderSandboxAnswersOneOrZero)
{
    EXPECT_EQ(Agent->AddProcess(L"C:\\App.exe").Status, STATUS_SUCCESS);
    EXPECT_EQ(Agent->AddParentProcess(L"C:\\Shell.exe").Status, STATUS_SUCCESS);
    EXPECT_EQ(Agent->IsExistUnderSandbox(), (ControlAnswer{STATUS_SUCCESS, 0}));
    Program app = Computer.StartProcess(L"C:\\App.exe");
    Program shell = Computer.StartProcess(L"C:\\Shell.exe");
    Computer.ClearDebugPrints();
    EXPECT_EQ(Agent->IsUnderSandbox(app.ProcessId()), (ControlAnswer{STATUS_SUCCESS, 1}));
    EXPECT_EQ(Agent->IsUnderSandbox(shell.ProcessId()), (ControlAnswer{STATUS_SUCCESS, 1}));
    EXPECT_EQ(Agent->IsUnderSandbox(Agent->ProcessId()), (ControlAnswer{STATUS_SUCCESS, 0}));
    EXPECT_EQ(Agent->IsExistUnderSandbox(), (ControlAnswer{STATUS_SUCCESS, 1}));
    EXPECT_THAT(DebugPrints(), IsEmpty());
}

TEST_F(QueryRequest, UnderSandboxTracesItsAnswer)
{
    EXPECT_EQ(Agent->AddProcess(L"C:\\App.exe").Status, STATUS_SUCCESS);
    Global.VerboseTrace = TRUE;
    Computer.ClearDebugPrints();
    Agent->IsUnderSandbox(12345);
    Agent->IsExistUnderSandbox();
    EXPECT_THAT(DebugPrints(), ElementsAre("Tarnveil - IOCTL_IS_UNDER_SANDBOX :PID[12345]:FALSE\n",
                                   "Tarnveil - IOCTL_IS_EXIST_UNDER_SANDBOX :FALSE\n"));
    Global.VerboseTrace = FALSE;
    Program app = Computer.StartProcess(L"C:\\App.exe");
    Global.VerboseTrace = TRUE;
    Computer.ClearDebugPrints();
    Agent->IsUnderSandbox(app.ProcessId());
    Agent->IsExistUnderSandbox();
    EXPECT_THAT(DebugPrints(),
        ElementsAre("Tarnveil - IOCTL_IS_UNDER_SANDBOX :PID[" + std::to_string(app.ProcessId()) + "]:TRUE\n",
            "Tarnveil - IOCTL_IS_EXIST_UNDER_SANDBOX :TRUE\n"));
    Global.VerboseTrace = FALSE;
}

TEST_F(QueryRequest, PidListSaysHowManyThereAreWhenTheyDoNotFit)
{
    EXPECT_EQ(Agent->AddProcess(L"C:\\App.exe").Status, STATUS_SUCCESS);
    std::vector<ULONG> ids;
    for (int i = 0; i < 3; ++i)
    {
        ids.push_back(Computer.StartProcess(L"C:\\App.exe").ProcessId());
    }
    Computer.ClearDebugPrints();
    for (ULONG room : {0u, 2u})
    {
        const PidListAnswer answer = Agent->PidList(room);
        EXPECT_EQ(answer.Status, STATUS_BUFFER_TOO_SMALL);
        EXPECT_EQ(answer.Count, 3u);
    }
    const PidListAnswer answer = Agent->PidList(3);
    EXPECT_EQ(answer.Status, STATUS_SUCCESS);
    EXPECT_EQ(answer.Count, 3u);
    EXPECT_EQ(answer.Ids, ids);
    EXPECT_THAT(DebugPrints(), testing::Each("Tarnveil - IOCTL_GET_PID_LIST_UNDER_SANDBOX\n"));
}

TEST_F(QueryRequest, PidListOfNobodyIsACountOfZero)
{
    const PidListAnswer answer = Agent->PidList(0);
    EXPECT_EQ(answer.Status, STATUS_SUCCESS);
    EXPECT_EQ(answer.Count, 0u);
    EXPECT_EQ(Send(IOCTL_GET_PID_LIST_UNDER_SANDBOX, {}, 3), STATUS_BUFFER_TOO_SMALL);
    EXPECT_EQ(Send(IOCTL_GET_PID_LIST_UNDER_SANDBOX), STATUS_INVALID_PARAMETER);
}
}
}
