// Roads to the create decision: names in every spelling, relative opens, opens by id. Who may open what is the decision
// table's to say.

#include "tests/scenario/cipher_scenario.h"
#include "tests/scenario/driver_under_test.h"

#include <gmock/gmock.h>

namespace cipher_test
{
namespace
{
constexpr WideView Plan = L"C:\\Sandbox\\plan.txt";

class CreateDecision : public testing::Test
{
protected:
    void Boot(ScenarioOptions options = {})
    {
        scenario_.emplace(std::move(options));
        event_.emplace(scenario_->Agent->CreateEvent());
        // Opens are what is told of here, not processes.
        ASSERT_EQ(scenario_->Agent->StartLogging(*event_, 0x0a), STATUS_SUCCESS);
    }
    void TearDown() override
    {
        if (scenario_)
        {
            scenario_->Agent->StopLogging();
        }
        event_.reset();
        scenario_.reset();
    }

    // The one record that the last open left.
    void ExpectRecord(ULONG level, const Program& program, const char* status, const char* path)
    {
        const auto records = scenario_->Agent->DrainLog();
        ASSERT_EQ(records.size(), 1u);
        EXPECT_EQ(records[0].Level, level);
        EXPECT_EQ(records[0].ProcessId, program.ProcessId());
        EXPECT_EQ(records[0].Message, std::string("IRP = CREATE Ope = PRE status = ") + status + " path = " + path);
    }
    void ExpectNoRecord() { EXPECT_EQ(scenario_->Agent->DrainLog(), std::vector<LogRecord>{}); }

    static constexpr char Granted[] = "0x00000000L";
    static constexpr char Denied[] = "0xC0000022L";

    std::optional<CipherScenario> scenario_;
    std::optional<ProgramEvent> event_;
};

TEST_F(CreateDecision, ADeniedCreateMakesNoFile)
{
    Boot();
    auto file = scenario_->Agent->Create(Plan);
    EXPECT_EQ(file.Status(), STATUS_ACCESS_DENIED);
    EXPECT_EQ(file.Information(), 0u);
    ExpectRecord(8, *scenario_->Agent, Denied, "\\Device\\HarddiskVolume1\\Sandbox\\plan.txt");
    EXPECT_FALSE(scenario_->Computer.DiskHas(Plan));
}

TEST_F(CreateDecision, AKeyThatComesLaterOpensTheSandbox)
{
    Boot({.Key = ""});
    EXPECT_EQ(scenario_->Editor->Create(Plan).Status(), STATUS_ACCESS_DENIED);
    ExpectRecord(8, *scenario_->Editor, Denied, "\\Device\\HarddiskVolume1\\Sandbox\\plan.txt");
    EXPECT_EQ(scenario_->Agent->SetCryptKey(Pattern(16), 1), STATUS_SUCCESS);
    EXPECT_EQ(scenario_->Editor->Create(Plan).Status(), STATUS_SUCCESS);
}

TEST_F(CreateDecision, TheSandboxFolderItselfIsInsideInAnyCase)
{
    Boot();
    for (const WideView path : {L"C:\\Sandbox", L"C:\\SANDBOX", L"c:\\sandbox"})
    {
        EXPECT_EQ(scenario_->Agent->OpenDirectory(path).Status(), STATUS_ACCESS_DENIED) << Narrow(path);
        EXPECT_EQ(scenario_->Editor->OpenDirectory(path).Status(), STATUS_SUCCESS) << Narrow(path);
    }
}

TEST(CreateDecisionFolder, LettersBeyondAsciiHaveTwoCasesToo)
{
    Machine machine;
    machine.Registry().SetString(Machine::ServiceKey, L"SandboxPath", L"\\Device\\HarddiskVolume1\\\u00dcbung");
    ASSERT_EQ(machine.MakeFolder(L"C:\\\u00dcbung"), STATUS_SUCCESS);
    ASSERT_EQ(machine.LoadDriver(scenario_test::DriverUnderTest()), STATUS_SUCCESS);
    const Program outsider = machine.StartProcess(L"C:\\outsider.exe");
    for (const WideView path : {L"C:\\\u00dcbung", L"C:\\\u00fcbung", L"C:\\\u00fcBUNG"})
    {
        EXPECT_EQ(outsider.OpenDirectory(path).Status(), STATUS_ACCESS_DENIED) << Narrow(path);
    }
    EXPECT_EQ(outsider.OpenDirectory(L"C:\\").Status(), STATUS_SUCCESS);
}

TEST_F(CreateDecision, PathsBelowAreInsideInAnyCase)
{
    Boot();
    EXPECT_EQ(scenario_->Agent->Create(L"C:\\sANDBOX\\PLAN.TXT").Status(), STATUS_ACCESS_DENIED);
    EXPECT_EQ(scenario_->Editor->CreateDirectory(L"C:\\Sandbox\\deep").Status(), STATUS_SUCCESS);
    EXPECT_EQ(scenario_->Agent->Create(L"C:\\Sandbox\\Deep\\a").Status(), STATUS_ACCESS_DENIED);
    EXPECT_EQ(scenario_->Editor->Create(L"C:\\Sandbox\\Deep\\a").Status(), STATUS_SUCCESS);
}

TEST_F(CreateDecision, ANameThatOnlyBeginsLikeTheFolderIsOutside)
{
    Boot();
    EXPECT_EQ(scenario_->Agent->Create(L"C:\\SandboxOther").Status(), STATUS_SUCCESS);
    EXPECT_EQ(scenario_->Agent->Create(L"C:\\Sandbox.txt").Status(), STATUS_SUCCESS);
    EXPECT_EQ(scenario_->Agent->Create(L"C:\\Sandbo").Status(), STATUS_SUCCESS);
    ExpectNoRecord();
}

TEST_F(CreateDecision, WithEncryptionOffTheOpenSucceedsAllTheSame)
{
    Boot();
    EXPECT_EQ(scenario_->Agent->SetEncryption(0), STATUS_SUCCESS);
    EXPECT_EQ(scenario_->Editor->Create(Plan).Status(), STATUS_SUCCESS);
    EXPECT_EQ(scenario_->Agent->Open(Plan).Status(), STATUS_ACCESS_DENIED);
}

TEST_F(CreateDecision, APathRelativeToAnOpenFolderIsJudgedInFull)
{
    Boot();
    auto folder = scenario_->Editor->OpenDirectory(L"C:\\Sandbox");
    ASSERT_EQ(folder.Status(), STATUS_SUCCESS);
    EXPECT_EQ(scenario_->Editor->OpenRelative(folder, L"plan.txt", FILE_CREATE).Status(), STATUS_SUCCESS);
    auto root = scenario_->Agent->OpenDirectory(L"C:\\");
    ASSERT_EQ(root.Status(), STATUS_SUCCESS);
    EXPECT_EQ(scenario_->Agent->OpenRelative(root, L"Sandbox\\plan.txt").Status(), STATUS_ACCESS_DENIED);
}

TEST_F(CreateDecision, AnOpenByIdIsJudgedByThePathOfTheFile)
{
    Boot();
    auto file = scenario_->Editor->Create(Plan);
    const ULONGLONG id = file.FileId();
    ASSERT_NE(id, 0u);
    EXPECT_EQ(scenario_->Agent->OpenById(L"C:", id).Status(), STATUS_ACCESS_DENIED);
    EXPECT_EQ(scenario_->Editor->OpenById(L"C:", id).Status(), STATUS_SUCCESS);
}

TEST_F(CreateDecision, ALongPathIsShortenedInTheRecord)
{
    Boot();
    std::string name(200, 'n');
    const WideString wide(200, L'n');
    EXPECT_EQ(scenario_->Editor->CreateDirectory(L"C:\\Sandbox\\" + wide).Status(), STATUS_SUCCESS);
    scenario_->Agent->DrainLog();
    EXPECT_EQ(scenario_->Editor->Create(L"C:\\Sandbox\\" + wide + L"\\" + wide).Status(), STATUS_SUCCESS);
    const std::string path = "\\Device\\HarddiskVolume1\\Sandbox\\" + name + "\\" + name;
    ExpectRecord(
        2, *scenario_->Editor, Granted, (path.substr(0, 128) + " ... " + path.substr(path.size() - 127)).c_str());
}
}
}
