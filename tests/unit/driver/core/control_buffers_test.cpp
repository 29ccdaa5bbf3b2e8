// Packets and buffers of the control device's requests: what is missing, too short, unterminated or out of reach.

#include "hosted/io/irp.h"
#include "tests/unit/driver/core/request_fixture.h"

namespace request_test
{
namespace
{
using ControlBuffers = RequestTest;

TEST_F(ControlBuffers, MissingStackLocationIsPrintedAndNothingIsCompleted)
{
    IRP irp = {};
    irp.IoStatus.Status = STATUS_PENDING;
    irp.IoStatus.Information = 77;
    EXPECT_EQ(DispatchDeviceControl(Global.ControlDevice, &irp), STATUS_SUCCESS);
    EXPECT_THAT(DebugPrints(), ElementsAre("Tarnveil - CurrentIoStackLocation NULL\n"));
    EXPECT_EQ(irp.IoStatus.Status, STATUS_PENDING);
    EXPECT_EQ(irp.IoStatus.Information, 77u);
}

TEST_F(ControlBuffers, OpenCloseAndCleanupCompleteAtOnceWithNothing)
{
    for (UCHAR major : {IRP_MJ_CREATE, IRP_MJ_CLEANUP, IRP_MJ_CLOSE})
    {
        EXPECT_EQ(Computer.Driver()->MajorFunction[major], &OpenCloseControlDevice);
        const AttachedProcess system(SystemProcess());
        PIRP irp = AllocateIrp(Global.ControlDevice);
        IoGetCurrentIrpStackLocation(irp)->MajorFunction = major;
        irp->IoStatus.Information = 77;
        ULONG_PTR information = 77;
        EXPECT_EQ(SendIrp(Global.ControlDevice, irp, 0, &information), STATUS_SUCCESS);
        EXPECT_EQ(information, 0u);
    }
    EXPECT_EQ(Computer.Driver()->MajorFunction[IRP_MJ_DEVICE_CONTROL], &DispatchDeviceControl);
    EXPECT_THAT(DebugPrints(), IsEmpty());
}

// A string that is not terminated is what the input holds, and no byte from behind it.
TEST_F(ControlBuffers, PathWithoutATerminatorEndsWithTheInput)
{
    std::string input = Terminated(L"C:\\a.exe");
    input.resize(input.size() - sizeof(WCHAR));
    // A stray odd byte is no character.
    for (const std::string& sent : {input, input + "?"})
    {
        const ControlResult result = Agent->DeviceControl(IOCTL_ADD_PROCESS, sent, sizeof(ULONG));
        EXPECT_EQ(result.Status, STATUS_SUCCESS);
        const UNICODE_STRING path = Counted(L"C:\\a.exe");
        ULONG id = 0;
        EXPECT_TRUE(FindSetting(ProcessNames, &path, &id));
        EXPECT_EQ(result.Output, Word(id));
        EXPECT_EQ(Agent->DelProcess(id), STATUS_SUCCESS);
    }
    FailRoutine("ExAllocatePoolWithTag");
    EXPECT_EQ(Send(IOCTL_ADD_PROCESS, input, sizeof(ULONG)), STATUS_INSUFFICIENT_RESOURCES);
}

TEST_F(ControlBuffers, PathIsReadUpToItsTerminatorOnly)
{
    const std::string input = Terminated(L"C:\\a.exe") + Terminated(L"behind");
    EXPECT_EQ(Agent->DeviceControl(IOCTL_ADD_EXC_PROCESS, input, sizeof(ULONG)).Status, STATUS_SUCCESS);
    const UNICODE_STRING path = Counted(L"C:\\a.exe");
    ULONG id = 0;
    EXPECT_TRUE(FindSetting(ExclusionProcessNames, &path, &id));
}

// What the buffer held before is what is printed for a setting that never got an id.
TEST_F(ControlBuffers, FailedAddPrintsWhatTheOutputHolds)
{
    FailRoutine("ExAllocatePoolWithTag");
    const ControlResult result = Agent->DeviceControl(IOCTL_ADD_EXC_PROCESS, Terminated(L"C:\\a.exe"), sizeof(ULONG));
    ResetFailures();
    EXPECT_EQ(result.Status, STATUS_MEMORY_NOT_ALLOCATED);
    EXPECT_EQ(result.Information, 0u);
    EXPECT_EQ(result.Output, Word(0xEEEEEEEE));
    EXPECT_THAT(DebugPrints(), ElementsAre("Tarnveil - process name entry allocate error\n",
                                   "Tarnveil - IOCTL_ADD_EXC_PROCESS: 'C:\\a.exe', id(-286331154)\n"));
}

TEST_F(ControlBuffers, QuestionsWithoutRoomForTheirWordsAreInvalid)
{
    for (ULONG size : {0u, 3u})
    {
        EXPECT_EQ(Send(IOCTL_IS_UNDER_SANDBOX, Word(4), size), STATUS_INVALID_PARAMETER);
        EXPECT_EQ(Send(IOCTL_IS_EXIST_UNDER_SANDBOX, {}, size), STATUS_INVALID_PARAMETER);
    }
    EXPECT_EQ(Send(IOCTL_IS_UNDER_SANDBOX, {}, 4), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(Send(IOCTL_IS_UNDER_SANDBOX, "abc", 4), STATUS_INVALID_PARAMETER);
}

TEST_F(ControlBuffers, AnswersThatCannotBeWrittenAreAccessViolations)
{
    EXPECT_EQ(Agent->AddProcess(L"C:\\App.exe").Status, STATUS_SUCCESS);
    Program app = Computer.StartProcess(L"C:\\App.exe");
    for (ULONG code : {IOCTL_IS_UNDER_SANDBOX, IOCTL_IS_EXIST_UNDER_SANDBOX, IOCTL_GET_PID_LIST_UNDER_SANDBOX})
    {
        for (OutputBuffer kind : {OutputBuffer::ReadOnly, OutputBuffer::NoAccess, OutputBuffer::Kernel,
                 OutputBuffer::LostMidway, OutputBuffer::Guarded})
        {
            ControlOptions options;
            options.Kind = kind;
            options.Probe = kind == OutputBuffer::LostMidway || kind == OutputBuffer::Guarded;
            const ControlResult result = Agent->DeviceControl(code, Word(app.ProcessId()), 64, options);
            EXPECT_EQ(result.Status, STATUS_ACCESS_VIOLATION) << std::hex << code;
            EXPECT_EQ(result.Information, 0u);
        }
    }
    // The list's lock was given back.
    EXPECT_EQ(Agent->PidList().Count, 1u);
}
}
}
