// A machine with the driver loaded and an agent that reads its log.
#pragma once

#include "driver/core/global_state.h"
#include "driver/process/setting_id.h"
#include "hosted/ke/failure_injection.h"
#include "hosted/machine/machine.h"
#include "hosted/machine/native_image.h"
#include "hosted/machine/process_create.h"
#include "hosted/ps/query_hooks.h"
#include "tests/support/text.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tarnveil/control.h>

namespace agent_test
{
using namespace hosted;
using testing::ElementsAre;
using testing::IsEmpty;

class AgentTest : public testing::Test
{
protected:
    void SetUp() override
    {
        ResetFailures();
        ASSERT_EQ(machine_.LoadDriver(Image::Native), STATUS_SUCCESS);
        // This number stays in use, so that those of a test differ from an output that nobody wrote.
        base_ = IssueId() + 1;
        machine_.ClearDebugPrints();
    }

    void TearDown() override
    {
        ResetFailures();
        ResetQueryHooks();
        Global.VerboseTrace = FALSE;
    }

    // The number of a test's nth setting.
    ULONG Id(ULONG n) const { return base_ + n; }

    // All levels, with an empty queue.
    void Listen(ULONG levels = 0xffffffff)
    {
        ASSERT_EQ(agent_.StartLogging(event_, levels), STATUS_SUCCESS);
        agent_.DrainLog();
        event_.Clear();
        machine_.ClearDebugPrints();
    }

    // The messages that came since the last call.
    std::vector<std::string> Messages()
    {
        std::vector<std::string> messages;
        for (const LogRecord& record : agent_.DrainLog())
        {
            messages.push_back(record.Message);
        }
        return messages;
    }

    // The texts printed while the action ran.
    template <class Action>
    std::vector<std::string> PrintsOf(Action&& action)
    {
        machine_.ClearDebugPrints();
        action();
        return machine_.DebugPrints();
    }

    Machine machine_;
    Program agent_ = machine_.StartProcess(L"C:\\Agent\\agent.exe");
    ProgramEvent event_ = agent_.CreateEvent();

private:
    ULONG base_ = 0;
};
}
