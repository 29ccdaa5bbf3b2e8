// The whole road of one enciphered file, and the same with every call that can fail failing in turn.
#include "hosted/ke/failure_injection.h"
#include "tests/scenario/cipher_scenario.h"

namespace cipher_test
{
namespace
{
constexpr WideView Plan = L"C:\\Sandbox\\plan.txt";

struct RoadResult
{
    std::vector<NTSTATUS> Statuses;
    std::string Back;
};

RoadResult Walk(CipherScenario& scenario, const std::string& plain)
{
    RoadResult result;
    const auto note = [&result](NTSTATUS status) { result.Statuses.push_back(status); };
    note(scenario.Agent->SetCryptKey(Pattern(16, 3), ScenarioMask));
    auto file = scenario.Editor->Create(Plan);
    note(file.Status());
    if (!file.IsOpen())
    {
        return result;
    }
    note(file.Write(plain));
    note(file.Flush());
    note(file.SetEndOfFile(static_cast<LONGLONG>(plain.size()) - 100));
    note(file.Flush());
    {
        auto direct = scenario.Editor->OpenNonCached(Plan);
        note(direct.Status());
        if (direct.IsOpen())
        {
            direct.Read(0, 512);
            note(direct.Status());
        }
    }
    result.Back = file.ReadAll();
    note(file.Close());
    return result;
}

TEST(Road, AFileGoesOutEncipheredAndComesBack)
{
    CipherScenario scenario({.Key = ""});
    const std::string plain = Pattern(9000);
    const RoadResult result = Walk(scenario, plain);
    EXPECT_EQ(result.Statuses, std::vector<NTSTATUS>(9, STATUS_SUCCESS));
    EXPECT_EQ(result.Back, plain.substr(0, 8900));
    scenario.Computer.FlushAll();
    EXPECT_EQ(scenario.Computer.Disk(Plan), OnDisk(Pattern(16, 3), ScenarioMask, plain.substr(0, 8900)));
    EXPECT_EQ(scenario.Agent->Open(Plan).Status(), STATUS_ACCESS_DENIED);
    scenario.Editor->Exit();
    scenario.Agent->Exit();
    EXPECT_EQ(scenario.Computer.UnloadDriver(), STATUS_SUCCESS);
}

TEST(Road, AnySingleFailureLeavesNothingBehindAndTheNextWalkSucceeds)
{
    const std::string plain = Pattern(9000);
    uint64_t number = 0;
    for (bool failed = true; failed;)
    {
        CipherScenario scenario({.Key = ""});
        ResetFailures();
        FailNthCall(++number);
        const RoadResult result = Walk(scenario, plain);
        failed = InjectedFailures() != 0;
        ResetFailures();
        for (const NTSTATUS status : result.Statuses)
        {
            EXPECT_TRUE(
                status == STATUS_SUCCESS || status == STATUS_INSUFFICIENT_RESOURCES || status == STATUS_ACCESS_DENIED)
                << "call " << number << ": " << std::hex << static_cast<ULONG>(status);
        }
        const RoadResult again = Walk(scenario, plain);
        EXPECT_EQ(again.Statuses, std::vector<NTSTATUS>(9, STATUS_SUCCESS)) << "after call " << number;
        EXPECT_EQ(again.Back, plain.substr(0, 8900)) << "after call " << number;
        ASSERT_LT(number, 2000u);
    }
    EXPECT_GT(number, 20u);
}
}
}
