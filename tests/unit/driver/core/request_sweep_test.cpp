// Every request with every length around the documented ones and every kind of output buffer, as an attacker would
// send them. The pool is guarded: a touch outside the system buffer stops the run.

#include "driver/core/global_state.h"
#include "driver/process/file_protection.h"
#include "driver/util/debug_print.h"
#include "hosted/ke/failure_injection.h"
#include "hosted/machine/native_image.h"
#include "hosted/machine/process_create.h"
#include "hosted/ps/process_table.h"
#include "tests/support/machine.h"

#include <gmock/gmock.h>
#include <tarnveil/control.h>

namespace request_sweep_test
{
namespace
{
using namespace hosted;

std::string Bytes(WideView text)
{
    return {reinterpret_cast<const char*>(text.data()), text.size() * sizeof(WCHAR)};
}

std::string Word(ULONG value)
{
    return {reinterpret_cast<const char*>(&value), sizeof(value)};
}

const std::string Path = Bytes(WideView(L"C:\\a.exe", 9));

struct RequestCase
{
    const char* Name;
    ULONG Code;
    // What a sound request carries, and how many bytes of output it asks for.
    std::string Input;
    ULONG Output;
};

const std::vector<RequestCase> Requests = {
    {"SET_CRYPTKEY", IOCTL_SET_CRYPTKEY, std::string(33, 'k'), 0},
    {"ADD_PARENT_PROCESS", IOCTL_ADD_PARENT_PROCESS, Path, 4},
    {"ADD_PROCESS", IOCTL_ADD_PROCESS, Path, 4},
    {"DEL_PROCESS", IOCTL_DEL_PROCESS, Word(0x12345678), 0},
    {"START", IOCTL_START, "", 0},
    {"STOP", IOCTL_STOP, "", 0},
    {"START_LOGGING", IOCTL_START_LOGGING, std::string(12, '\0'), 0},
    {"STOP_LOGGING", IOCTL_STOP_LOGGING, "", 0},
    {"GET_LOG_DATA", IOCTL_GET_LOG_DATA, "", 1096},
    {"IS_UNDER_SANDBOX", IOCTL_IS_UNDER_SANDBOX, Word(4), 4},
    {"IS_EXIST_UNDER_SANDBOX", IOCTL_IS_EXIST_UNDER_SANDBOX, "", 4},
    {"GET_PID_LIST_UNDER_SANDBOX", IOCTL_GET_PID_LIST_UNDER_SANDBOX, "", 12},
    {"ADD_EXC_PROCESS", IOCTL_ADD_EXC_PROCESS, Path, 4},
    {"SET_ENCRYPTION", IOCTL_SET_ENCRYPTION, Word(1), 0},
    {"ADD_FILE_PROTECTION", IOCTL_ADD_FILE_PROTECTION, Word(100) + Path, 4},
    {"DEL_FILE_PROTECTION", IOCTL_DEL_FILE_PROTECTION, Word(0x12345678), 0},
    {"OUTPUT_CURRENT_PARAM", IOCTL_OUTPUT_CURRENT_PARAM, "", 0},
};

constexpr OutputBuffer Kinds[] = {OutputBuffer::Exact, OutputBuffer::ReadOnly, OutputBuffer::NoAccess,
    OutputBuffer::Null, OutputBuffer::LostMidway, OutputBuffer::Guarded, OutputBuffer::Kernel};
constexpr ULONG Beyond = 8;

bool IsOneOf(NTSTATUS status, std::initializer_list<NTSTATUS> statuses)
{
    return std::ranges::find(statuses, status) != statuses.end();
}

MachineOptions GuardedMachine()
{
    MachineOptions options;
    options.System.GuardedPool = true;
    return options;
}

class RequestSweep : public testing::Test
{
protected:
    void SetUp() override
    {
        ResetFailures();
        ASSERT_EQ(machine_.LoadDriver(Image::Native), STATUS_SUCCESS);
        agent_.emplace(machine_.StartProcess(L"C:\\Agent\\agent.exe"));
        editor_.emplace(machine_.StartProcess(L"C:\\Apps\\Editor.exe"));
        Reset();
    }

    // One process under the sandbox, no key, nothing else.
    void Reset()
    {
        agent_->StopDriver();
        ASSERT_EQ(agent_->AddProcess(L"C:\\Apps\\Editor.exe").Status, STATUS_SUCCESS);
        Global.KeyLength = 0;
        Global.KeyClaimed = FALSE;
        machine_.ClearDebugPrints();
    }
    size_t Settings()
    {
        return Count(Global.ParentProcessNameList) + Count(Global.ProcessNameList) +
               Count(Global.ExclusionProcessNameList);
    }
    template <class Entry>
    static size_t Count(LockedList<Entry>& list)
    {
        size_t count = 0;
        WithLock(list.Lock, [&]() REQUIRES_LOCK(list.Lock) { count = list.Entries.Count(); });
        return count;
    }

    // Whether a program can be answered in that buffer. What the driver gets is null when there are no bytes.
    static bool IsWritable(OutputBuffer kind) { return kind == OutputBuffer::Ordinary || kind == OutputBuffer::Exact; }

    // What the request must answer; every check that nothing has changed that should not have is made here too.
    void Judge(const RequestCase& request, const std::string& input, ULONG output, OutputBuffer kind,
        const ControlResult& result, size_t settingsBefore)
    {
        const NTSTATUS status = result.Status;
        const bool writable = IsWritable(kind) && output != 0;
        const bool isAdd = request.Code == IOCTL_ADD_PARENT_PROCESS || request.Code == IOCTL_ADD_PROCESS ||
                           request.Code == IOCTL_ADD_EXC_PROCESS || request.Code == IOCTL_ADD_FILE_PROTECTION;
        if (request.Code != IOCTL_GET_LOG_DATA)
        {
            EXPECT_EQ(result.Information, 0u);
        }
        if (isAdd)
        {
            if (output != 4)
            {
                EXPECT_EQ(status, STATUS_INVALID_PARAMETER);
                EXPECT_EQ(Settings(), settingsBefore);
                return;
            }
            if (!writable)
            {
                EXPECT_TRUE(IsOneOf(status, {STATUS_ACCESS_VIOLATION, STATUS_INVALID_PARAMETER}));
                EXPECT_EQ(Settings(), settingsBefore);
                return;
            }
            EXPECT_TRUE(IsOneOf(status, {STATUS_SUCCESS, STATUS_INVALID_PARAMETER}));
            if (!NT_SUCCESS(status) && request.Code != IOCTL_ADD_FILE_PROTECTION)
            {
                EXPECT_EQ(Settings(), settingsBefore);
            }
            if (input.size() >= request.Input.size())
            {
                EXPECT_EQ(status, STATUS_SUCCESS);
                EXPECT_NE(result.Output, Word(0xeeeeeeee));
            }
            return;
        }
        JudgeOthers(request, input, output, writable, result);
    }

    void JudgeOthers(
        const RequestCase& request, const std::string& input, ULONG output, bool writable, const ControlResult& result)
    {
        const NTSTATUS status = result.Status;
        switch (request.Code)
        {
        case IOCTL_SET_CRYPTKEY:
            EXPECT_EQ(status, input.size() == 17 || input.size() == 25 || input.size() == 33
                                  ? STATUS_SUCCESS
                                  : STATUS_INVALID_PARAMETER);
            break;
        case IOCTL_DEL_PROCESS:
        case IOCTL_DEL_FILE_PROTECTION:
            EXPECT_EQ(status, input.size() >= 4 ? STATUS_SUCCESS : STATUS_INVALID_PARAMETER);
            break;
        case IOCTL_START_LOGGING:
            // The handle is no event of the program's.
            EXPECT_EQ(status, input.size() == 12 ? STATUS_SUCCESS : STATUS_INVALID_PARAMETER);
            break;
        case IOCTL_SET_ENCRYPTION:
            EXPECT_EQ(status, input.size() == 4 ? STATUS_SUCCESS : STATUS_INVALID_PARAMETER);
            break;
        case IOCTL_GET_LOG_DATA:
            EXPECT_EQ(status, output >= 1096 ? STATUS_NO_MORE_ENTRIES : STATUS_BUFFER_TOO_SMALL);
            EXPECT_EQ(result.Information, 0u);
            break;
        case IOCTL_IS_UNDER_SANDBOX:
        case IOCTL_IS_EXIST_UNDER_SANDBOX:
            if (output < 4 || (request.Code == IOCTL_IS_UNDER_SANDBOX && input.size() < 4))
            {
                EXPECT_EQ(status, STATUS_INVALID_PARAMETER);
            }
            else
            {
                EXPECT_EQ(status, writable ? STATUS_SUCCESS : STATUS_ACCESS_VIOLATION);
            }
            break;
        case IOCTL_GET_PID_LIST_UNDER_SANDBOX:
            JudgePidList(output, writable, result);
            break;
        default:
            EXPECT_EQ(status, STATUS_SUCCESS);
        }
    }

    void JudgePidList(ULONG output, bool writable, const ControlResult& result)
    {
        if (output == 0)
        {
            EXPECT_EQ(result.Status, STATUS_INVALID_PARAMETER);
        }
        else if (output < 4)
        {
            EXPECT_TRUE(IsOneOf(result.Status, {STATUS_BUFFER_TOO_SMALL, STATUS_INVALID_PARAMETER}));
        }
        else if (!writable)
        {
            EXPECT_TRUE(IsOneOf(result.Status, {STATUS_ACCESS_VIOLATION, STATUS_INVALID_PARAMETER}));
        }
        else
        {
            EXPECT_EQ(result.Status, output < 8 ? STATUS_BUFFER_TOO_SMALL : STATUS_SUCCESS);
            EXPECT_EQ(result.Output.substr(0, 4), Word(1));
            EXPECT_EQ(result.Output.substr(4), output < 8
                                                   ? std::string(output - 4, '\xee')
                                                   : Word(editor_->ProcessId()) + std::string(output - 8, '\xee'));
        }
    }

    void Sweep(const RequestCase& request, OutputBuffer kind)
    {
        std::vector<ULONG> outputs;
        for (ULONG output = request.Output > 64 ? request.Output - 4 : 0; output <= request.Output + Beyond; ++output)
        {
            outputs.push_back(output);
        }
        outputs.push_back(0);
        outputs.push_back(1);
        for (size_t length = 0; length <= request.Input.size() + Beyond; ++length)
        {
            // Which buffer it is matters little to the length of the input.
            if (kind != OutputBuffer::Exact && length > 5 && length + 1 < request.Input.size())
            {
                continue;
            }
            for (const ULONG output : outputs)
            {
                SCOPED_TRACE(std::string(request.Name) + " input " + std::to_string(length) + " output " +
                             std::to_string(output) + " kind " + std::to_string(static_cast<int>(kind)));
                std::string input = request.Input;
                input.resize(length, 'x');
                const size_t before = Settings();
                ControlOptions options;
                options.Kind = kind;
                // The driver is to meet the buffers as they are.
                options.Probe = kind == OutputBuffer::LostMidway || kind == OutputBuffer::Guarded;
                const ControlResult result = agent_->DeviceControl(request.Code, input, output, options);
                Judge(request, input, output, kind, result, before);
                if (HasFailure())
                {
                    return;
                }
                Reset();
            }
        }
    }

    Machine machine_{GuardedMachine()};
    std::optional<Program> agent_;
    std::optional<Program> editor_;
};

class EachRequestSweep : public RequestSweep, public testing::WithParamInterface<RequestCase>
{
};

TEST_P(EachRequestSweep, EveryLengthAndBuffer)
{
    for (const OutputBuffer kind : Kinds)
    {
        Sweep(GetParam(), kind);
    }
}

INSTANTIATE_TEST_SUITE_P(Requests, EachRequestSweep, testing::ValuesIn(Requests),
    [](const auto& info) { return std::string(info.param.Name); });

TEST_F(RequestSweep, PathsWithoutATerminatorEndWithTheInput)
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

TEST_F(RequestSweep, WithoutMemoryForATerminatorTheRequestFails)
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

TEST_F(RequestSweep, PathsBeyondACountedLength)
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
TEST_F(RequestSweep, ATooLongProtectionDoesNotProtectItsBeginning)
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

TEST_F(RequestSweep, IdsThatWereNeverIssued)
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

TEST_F(RequestSweep, AProcessWithoutAName)
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
        // A denial that is told of it.
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
