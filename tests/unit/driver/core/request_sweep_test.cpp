// Every request with every length around the documented ones and every kind of output buffer, as an attacker would
// send them. The pool is guarded: a touch outside the system buffer stops the run.

#include "tests/unit/driver/core/request_sweep.h"

namespace request_sweep_test
{
namespace
{
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

class EachRequestSweep : public RequestSweep, public testing::WithParamInterface<RequestCase>
{
protected:
    // Whether a program can be answered in that buffer. What the driver gets is null when there are no bytes.
    static bool IsWritable(OutputBuffer kind) { return kind == OutputBuffer::Ordinary || kind == OutputBuffer::Exact; }

    // What the request must answer. One that is refused has changed nothing.
    void Judge(const RequestCase& request, const std::string& input, ULONG output, OutputBuffer kind,
        const ControlResult& result)
    {
        const NTSTATUS status = result.Status;
        const bool writable = IsWritable(kind) && output != 0;
        const bool isAdd = request.Code == IOCTL_ADD_PARENT_PROCESS || request.Code == IOCTL_ADD_PROCESS ||
                           request.Code == IOCTL_ADD_EXC_PROCESS || request.Code == IOCTL_ADD_FILE_PROTECTION;
        if (request.Code != IOCTL_GET_LOG_DATA)
        {
            EXPECT_EQ(result.Information, 0u);
        }
        if (!NT_SUCCESS(status))
        {
            EXPECT_TRUE(State() == clean_) << "a refused request changed something";
        }
        if (isAdd)
        {
            if (output != 4)
            {
                EXPECT_EQ(status, STATUS_INVALID_PARAMETER);
                return;
            }
            if (!writable)
            {
                EXPECT_TRUE(IsOneOf(status, {STATUS_ACCESS_VIOLATION, STATUS_INVALID_PARAMETER}));
                return;
            }
            EXPECT_TRUE(IsOneOf(status, {STATUS_SUCCESS, STATUS_INVALID_PARAMETER}));
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
            // How long the input is hardly depends on the buffer: one kind is asked with every length.
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
                ControlOptions options;
                options.Kind = kind;
                // The driver is to meet the buffers as they are.
                options.Probe = kind == OutputBuffer::LostMidway || kind == OutputBuffer::Guarded;
                const ControlResult result = agent_->DeviceControl(request.Code, input, output, options);
                Judge(request, input, output, kind, result);
                if (HasFailure())
                {
                    return;
                }
                ResetIfChanged();
            }
        }
    }
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
}
}
