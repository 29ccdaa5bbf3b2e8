// One request to the control device, with the buffers that a program might hand in.
#include "hosted/io/device_control.h"
#include "hosted/io/file.h"
#include "hosted/machine/control_device.h"
#include "hosted/machine/control_client.h"
#include "hosted/machine/program_state.h"

#include <algorithm>

namespace hosted
{
namespace
{
// The output buffer that the options ask for, and what of it can be read afterwards.
class RequestOutput
{
public:
    RequestOutput(UserBuffers& memory, ULONG size, const ControlOptions& options)
        : options_(options), existing_(std::min(size, options.Existing.value_or(size))),
          user_(memory, existing_, options.Fill, options.Existing.has_value() || options.Kind == OutputBuffer::Exact),
          kernel_(options.Kind == OutputBuffer::Kernel ? size : 0, static_cast<char>(options.Fill))
    {
        if (options.Kind == OutputBuffer::ReadOnly || options.Kind == OutputBuffer::NoAccess)
        {
            user_.Protect(options.Kind == OutputBuffer::ReadOnly, false);
        }
    }

    void* Address()
    {
        switch (options_.Kind)
        {
        case OutputBuffer::Null:
            return nullptr;
        case OutputBuffer::Kernel:
            return kernel_.data();
        default:
            return user_.Address();
        }
    }

    void LoseMidway()
    {
        if (options_.Kind == OutputBuffer::LostMidway)
        {
            user_.Protect(false, false);
        }
        if (options_.Kind == OutputBuffer::Guarded)
        {
            user_.Guard();
        }
    }

    std::string Content() const
    {
        switch (options_.Kind)
        {
        case OutputBuffer::Null:
            return {};
        case OutputBuffer::Kernel:
            return kernel_;
        default:
            return user_.Content();
        }
    }

private:
    const ControlOptions& options_;
    ULONG existing_;
    UserBuffer user_;
    std::string kernel_;
};
}

ControlResult ControlClient::DeviceControl(
    ULONG code, std::string_view input, ULONG outputSize, const ControlOptions& options) const
{
    const AttachedProcess attached(RunningProcess(*state_));
    ControlResult result;
    PFILE_OBJECT device = nullptr;
    result.Status = OpenControlDevice(&device);
    if (!NT_SUCCESS(result.Status))
    {
        return result;
    }
    {
        UserBuffer inputBuffer(state_->Buffers, input.size(), 0);
        inputBuffer.Set(input);
        RequestOutput output(state_->Buffers, outputSize, options);
        DeviceControlRequest request;
        request.Code = code;
        request.Input = input.empty() ? nullptr : inputBuffer.Address();
        request.InputLength = static_cast<ULONG>(input.size());
        request.Output = outputSize == 0 ? nullptr : output.Address();
        request.OutputLength = outputSize;
        request.Probe = options.Probe;
        request.BeforeDispatch = [&output] { output.LoseMidway(); };
        IO_STATUS_BLOCK status{};
        result.Status = hosted::DeviceControl(device, request, &status);
        result.Information = status.Information;
        result.Output = output.Content();
    }
    CloseFile(device);
    return result;
}
}
