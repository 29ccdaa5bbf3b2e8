// Inputs that no agent means to send: paths without an end or beyond a counted length, ids that were never given out,
// and a process that has no name.

#include "driver/process/file_protection.h"
#include "driver/util/debug_print.h"
#include "hosted/machine/process_create.h"
#include "hosted/ps/process_table.h"
#include "tests/unit/driver/core/request_sweep.h"

namespace request_sweep_test
{
namespace
{
using OddInput = RequestSweep;

TEST_F(OddInput, PathsWithoutATerminatorEndWithTheInput)
{
    for (const ULONG code : {IOCTL_ADD_PARENT_PROCESS, IOCTL_ADD_PROCESS, IOCTL_ADD_EXC_PROCESS})
    {
        const std::string bare = Bytes(L"C:\\bare.exe");
        const ControlResult first = agent_->DeviceControl(code, bare, 4);
        EXPECT_EQ(first.Status, STATUS_SUCCESS);
        // Half a character behind it is none.
        const ControlResult odd = agent_->DeviceControl(code, bare + "x", 4);
        EXPECT_EQ(odd.Status, STATUS_SUCCESS);
        EXPECT_EQ(odd.Output, first.Output);
        const ControlResult terminated = agent_->DeviceControl(code, bare + std::string(2, '\0') + "rest", 4);
        EXPECT_EQ(terminated.Output, first.Output);
    }
    const std::string protection = Word(100) + Bytes(L"C:\\bare.txt");
    const ControlResult first = agent_->DeviceControl(IOCTL_ADD_FILE_PROTECTION, protection, 4);
    EXPECT_EQ(first.Status, STATUS_SUCCESS);
    EXPECT_EQ(
        agent_->DeviceControl(IOCTL_ADD_FILE_PROTECTION, protection + std::string(2, '\0'), 4).Output, first.Output);
    FileProtection* found = nullptr;
    ASSERT_EQ(GetFileProtectionAt(0, &found), STATUS_SUCCESS);
    EXPECT_EQ(Narrow(View(found->Path)), "\\Device\\HarddiskVolume1\\bare.txt");
    EXPECT_EQ(GetFileProtectionAt(1, &found), STATUS_NOT_FOUND);
}

TEST_F(OddInput, WithoutMemoryForATerminatorTheRequestFails)
{
    for (const ULONG code :
        {IOCTL_ADD_PARENT_PROCESS, IOCTL_ADD_PROCESS, IOCTL_ADD_EXC_PROCESS, IOCTL_ADD_FILE_PROTECTION})
    {
        const size_t before = Settings();
        FailRoutine("ExAllocatePoolWithTag");
        // A process id without a zero in it, for the one request that begins with one.
        const std::string input = std::string(4, 'p') + Bytes(L"C:\\a");
        EXPECT_EQ(agent_->DeviceControl(code, input, 4).Status, STATUS_INSUFFICIENT_RESOURCES);
        ResetFailures();
        EXPECT_EQ(Settings(), before);
    }
}

TEST_F(OddInput, PathsBeyondACountedLength)
{
    for (const size_t characters : {0x7ffcu, 0x7ffdu, 0x7ffeu, 0x7fffu, 0x8000u, 0x8001u, 0xffffu, 0x10000u, 0x18003u})
    {
        WideString text = L"C:\\";
        text.resize(characters, L'p');
        for (const bool terminated : {true, false})
        {
            SCOPED_TRACE(std::to_string(characters) + (terminated ? " terminated" : ""));
            const std::string bytes = Bytes(text) + std::string(terminated ? 2 : 0, '\0');
            for (const ULONG code : {IOCTL_ADD_PARENT_PROCESS, IOCTL_ADD_PROCESS, IOCTL_ADD_EXC_PROCESS})
            {
                const NTSTATUS status = agent_->DeviceControl(code, bytes, 4).Status;
                EXPECT_TRUE(IsOneOf(status, {STATUS_SUCCESS, STATUS_INVALID_PARAMETER, STATUS_INSUFFICIENT_RESOURCES}))
                    << std::hex << status;
            }
            EXPECT_TRUE(IsOneOf(agent_->DeviceControl(IOCTL_ADD_FILE_PROTECTION, Word(100) + bytes, 4).Status,
                {STATUS_SUCCESS, STATUS_INVALID_PARAMETER, STATUS_INSUFFICIENT_RESOURCES}));
            EXPECT_EQ(agent_->OutputCurrentParam(), STATUS_SUCCESS);
            const auto file = agent_->Create(L"C:\\x.txt");
            EXPECT_EQ(file.Status(), STATUS_SUCCESS);
            Reset();
        }
    }
}

// A path that no counted string can show protects nothing, in particular not what its beginning names.
TEST_F(OddInput, ATooLongProtectionDoesNotProtectItsBeginning)
{
    for (const size_t characters : {0x7fffu, 0x8000u, 0x10000u})
    {
        WideString text = L"C:\\";
        text.resize(characters, L'*');
        EXPECT_FALSE(NT_SUCCESS(agent_->AddFileProtection(100, text).Status)) << characters;
        FileProtection* found = nullptr;
        EXPECT_EQ(GetFileProtectionAt(0, &found), STATUS_NOT_FOUND) << characters;
    }
}

TEST_F(OddInput, IdsThatWereNeverIssued)
{
    EXPECT_EQ(agent_->AddFileProtection(100, L"C:\\a").Status, STATUS_SUCCESS);
    const size_t before = Settings();
    for (const ULONG id : {0x7fffffffu, 0x80000000u, 0xfffffffeu, 0xffffffffu})
    {
        EXPECT_EQ(agent_->DelProcess(id), STATUS_SUCCESS);
        EXPECT_EQ(agent_->DelFileProtection(id), STATUS_SUCCESS);
    }
    EXPECT_EQ(Settings(), before);
    FileProtection* found = nullptr;
    ASSERT_EQ(GetFileProtectionAt(0, &found), STATUS_SUCCESS);
    EXPECT_FALSE(found->AllowedProcesses.IsEmpty());
}

TEST_F(OddInput, AProcessWithoutAName)
{
    Process* nameless = CreateProcessObject(AllocateProcessId(), ProcessIdHandle(4), L"", L"");
    InsertProcess(nameless);
    ProgramEvent event = agent_->CreateEvent();
    EXPECT_EQ(agent_->StartLogging(event, 0xffffffff), STATUS_SUCCESS);
    EXPECT_EQ(agent_->AddParentProcess(L"C:\\a.exe").Status, STATUS_SUCCESS);
    EXPECT_EQ(agent_->AddProcess(L"C:\\a.exe").Status, STATUS_SUCCESS);
    EXPECT_EQ(agent_->AddExclusion(L"").Status, STATUS_SUCCESS);
    EXPECT_EQ(agent_->OutputCurrentParam(), STATUS_SUCCESS);
    agent_->DrainLog();
    {
        // A denial, whose record names the process.
        EXPECT_EQ(agent_->AddFileProtection(agent_->ProcessId(), L"C:\\x.txt").Status, STATUS_SUCCESS);
        agent_->DrainLog();
        const AttachedProcess attached(nameless);
        OpenRequest request;
        request.Path = L"\\??\\C:\\x.txt";
        PFILE_OBJECT file = nullptr;
        EXPECT_EQ(OpenFile(request, &file), STATUS_ACCESS_DENIED);
    }
    const auto records = agent_->DrainLog();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].ProcessName, "");
    RemoveProcess(nameless);
    ObfDereferenceObject(nameless);
}
}
}
