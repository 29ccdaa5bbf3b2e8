// A loaded driver, and an agent that sends it requests byte by byte.
#pragma once

#include "driver/core/control_device.h"
#include "driver/core/global_state.h"
#include "hosted/ke/failure_injection.h"
#include "hosted/machine/native_image.h"
#include "hosted/rtl/debug_print.h"
#include "tests/support/machine.h"

#include <gmock/gmock.h>
#include <tarnveil/control.h>

namespace request_test
{
using namespace hosted;
using testing::ElementsAre;
using testing::IsEmpty;

inline std::string Word(ULONG value)
{
    return std::string(reinterpret_cast<const char*>(&value), sizeof(value));
}

inline std::string Terminated(WideView text)
{
    std::string bytes(reinterpret_cast<const char*>(text.data()), text.size() * sizeof(WCHAR));
    return bytes + std::string(sizeof(WCHAR), '\0');
}

class RequestTest : public testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_EQ(Computer.LoadDriver(Image::Native), STATUS_SUCCESS);
        Agent.emplace(Computer.StartProcess(L"C:\\Agent.exe"));
        Computer.ClearDebugPrints();
    }
    NTSTATUS Send(ULONG code, std::string_view input = {}, ULONG outputSize = 0)
    {
        const ControlResult result = Agent->DeviceControl(code, input, outputSize);
        EXPECT_EQ(result.Information, 0u);
        return result.Status;
    }

    Machine Computer;
    std::optional<Program> Agent;
};
}
