// A machine with the driver loaded and an agent that talks to it; nothing of the driver's inside is looked at.
#pragma once

#include "tests/scenario/driver_under_test.h"
#include "tests/support/machine.h"
#include "tests/support/text.h"

#include <gmock/gmock.h>
#include <tarnveil/control.h>

namespace scenario_test
{
using namespace hosted;
using testing::ElementsAre;
using testing::IsEmpty;

class AgentScenario : public testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_EQ(machine_.LoadDriver(scenario_test::DriverUnderTest()), STATUS_SUCCESS);
        // This number stays in use, so that those of a test differ from an output that nobody wrote.
        const ControlAnswer first = agent_.AddExclusion(L"C:\\nobody.exe");
        ASSERT_EQ(first.Status, STATUS_SUCCESS);
        base_ = first.Value + 1;
    }

    // The number of a test's nth setting.
    ULONG Id(ULONG n) const { return base_ + n; }
    bool IsUnder(const Program& program)
    {
        const ControlAnswer answer = agent_.IsUnderSandbox(program.ProcessId());
        EXPECT_EQ(answer.Status, STATUS_SUCCESS);
        EXPECT_LE(answer.Value, 1u);
        return answer.Value == 1;
    }
    void Listen(ULONG levels = 0x7f)
    {
        ASSERT_EQ(agent_.StartLogging(event_, levels), STATUS_SUCCESS);
        agent_.DrainLog();
        event_.Clear();
    }
    std::vector<std::string> Messages()
    {
        std::vector<std::string> messages;
        for (const LogRecord& record : agent_.DrainLog())
        {
            messages.push_back(record.Message);
        }
        return messages;
    }

    Machine machine_;
    Program agent_ = machine_.StartProcess(L"C:\\Agent\\agent.exe");
    ProgramEvent event_ = agent_.CreateEvent();

private:
    ULONG base_ = 0;
};
}
