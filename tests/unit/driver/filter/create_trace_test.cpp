// What a judged open tells the debugger and the agent.
#include "driver/core/global_state.h"
#include "hosted/ke/failure_injection.h"
#include "tests/scenario/cipher_scenario.h"

#include <gmock/gmock.h>

namespace cipher_test
{
namespace
{
constexpr WideView Plan = L"C:\\Sandbox\\plan.txt";
constexpr char PlanPath[] = "\\Device\\HarddiskVolume1\\Sandbox\\plan.txt";

class CreateTrace : public testing::Test
{
protected:
    void SetUp() override
    {
        ResetFailures();
        scenario_.emplace();
        event_.emplace(scenario_->Agent->CreateEvent());
        ASSERT_EQ(scenario_->Agent->StartLogging(*event_, 0x0a), STATUS_SUCCESS);
    }
    void TearDown() override
    {
        ResetFailures();
        Global.VerboseTrace = FALSE;
        event_.reset();
        scenario_.reset();
    }

    std::vector<std::string> PrintsOf(auto&& action)
    {
        scenario_->Computer.ClearDebugPrints();
        action();
        return scenario_->Computer.DebugPrints();
    }

    std::optional<CipherScenario> scenario_;
    std::optional<ProgramEvent> event_;
};

TEST_F(CreateTrace, ADeniedProgramIsTracedOnDemand)
{
    const Program& agent = *scenario_->Agent;
    EXPECT_THAT(PrintsOf([&] { EXPECT_EQ(agent.Create(Plan).Status(), STATUS_ACCESS_DENIED); }), testing::IsEmpty());
    Global.VerboseTrace = TRUE;
    EXPECT_THAT(PrintsOf([&] { EXPECT_EQ(agent.Create(Plan).Status(), STATUS_ACCESS_DENIED); }),
        testing::ElementsAre("Tarnveil - PID(" + std::to_string(agent.ProcessId()) +
                             ") IRP = CREATE Ope = PRE status = ACCESS_DENIED path = " + PlanPath + "\n"));
}

TEST_F(CreateTrace, APermittedOpenAndADenialForWantOfAKeyAreNotTraced)
{
    Global.VerboseTrace = TRUE;
    EXPECT_THAT(
        PrintsOf([&] { EXPECT_EQ(scenario_->Editor->Create(Plan).Status(), STATUS_SUCCESS); }), testing::IsEmpty());
    const ULONG keyLength = Global.KeyLength;
    Global.KeyLength = 0;
    EXPECT_THAT(
        PrintsOf([&] { EXPECT_EQ(scenario_->Editor->Open(Plan).Status(), STATUS_ACCESS_DENIED); }), testing::IsEmpty());
    EXPECT_THAT(
        PrintsOf([&] { EXPECT_EQ(scenario_->Agent->Open(Plan).Status(), STATUS_ACCESS_DENIED); }), testing::IsEmpty())
        << "the key is asked for first";
    Global.KeyLength = keyLength;
}

// The last four allocations of a denied open make its record: the shortened path, the record itself, the process
// snapshot that names the program, and the copy of the name.
TEST_F(CreateTrace, ADenialStandsWhenItsRecordCannotBeMade)
{
    const Program& agent = *scenario_->Agent;
    const auto failing = [&](uint64_t number)
    {
        ResetFailures();
        FailRoutine("ExAllocatePoolWithTag", number);
        const NTSTATUS status = agent.Open(Plan).Status();
        const bool failed = InjectedFailures() != 0;
        ResetFailures();
        return std::pair(status, failed);
    };
    scenario_->Editor->Create(Plan).Close();
    scenario_->Agent->DrainLog();
    uint64_t count = 0;
    while (failing(count + 1).second)
    {
        ASSERT_LT(++count, 100u);
    }
    ASSERT_GT(count, 4u);
    scenario_->Agent->DrainLog();
    for (uint64_t number = count - 3; number <= count; ++number)
    {
        EXPECT_EQ(failing(number).first, STATUS_ACCESS_DENIED) << number;
        EXPECT_EQ(scenario_->Agent->DrainLog(), std::vector<LogRecord>{}) << number;
    }
    EXPECT_EQ(failing(count + 1).first, STATUS_ACCESS_DENIED);
    EXPECT_EQ(scenario_->Agent->DrainLog().size(), 1u);
}
}
}
