// Who may open what: every row of the create decision with the record that it leaves, and the rows that leave none.
// Told from outside: by programs, by the agent's log and by what the debugger hears.

#include "hosted/ke/failure_injection.h"
#include "tests/scenario/driver_under_test.h"
#include "tests/support/machine.h"

#include <gmock/gmock.h>

namespace decision_test
{
namespace
{
using namespace hosted;
using testing::IsEmpty;

constexpr WideView Inside = L"C:\\Bay\\S\\plan.txt";
constexpr WideView Data = L"C:\\Bay\\S\\ProgramData\\Orvane Skylet Pro\\profile";
constexpr WideView Product = L"C:\\Bay\\bin\\setup.dat";
constexpr WideView Outside = L"C:\\Data\\note.txt";

class DecisionTable : public testing::Test
{
protected:
    // The sandbox is C:\Bay\S, the product's folder is therefore C:\Bay. Everything that is opened exists.
    void Boot(bool withKey = true, bool withBrowser = false)
    {
        computer_.Registry().SetString(Machine::ServiceKey, L"SandboxPath", L"\\Device\\HarddiskVolume1\\Bay\\S");
        if (withKey)
        {
            const std::vector<UCHAR> key(17, 0x11);
            computer_.Registry().SetBinary(Machine::ServiceKey, L"SandboxCryptKey", key);
        }
        if (withBrowser)
        {
            // "ABCDEF0@" in base64, by 16-bit characters.
            const WideView text = L"QQBCAEMARABFAEYAMABAAA==";
            computer_.Registry().SetBinary(Machine::ProductKey, L"InstallerType",
                {reinterpret_cast<const UCHAR*>(text.data()), text.size() * sizeof(WCHAR)});
        }
        for (const WideView path : {Inside, Data, Product, Outside})
        {
            ASSERT_EQ(computer_.PutOnDisk(path, "text"), STATUS_SUCCESS);
        }
        ASSERT_EQ(computer_.PutOnDisk(L"C:\\Bay\\HbKit.exe", "image"), STATUS_SUCCESS);
        // Ran before the load, so the product's folder was open to it.
        kit_.emplace(computer_.StartProcess(L"C:\\Bay\\HbKit.exe"));
        ASSERT_EQ(computer_.LoadDriver(scenario_test::DriverUnderTest()), STATUS_SUCCESS);
        agent_.emplace(computer_.StartProcess(L"C:\\Agent\\agent.exe"));
        ASSERT_EQ(agent_->AddProcess(L"C:\\Apps\\Editor.exe").Status, STATUS_SUCCESS);
        ASSERT_EQ(agent_->AddParentProcess(L"C:\\Apps\\Launcher.exe").Status, STATUS_SUCCESS);
        editor_.emplace(computer_.StartProcess(L"C:\\Apps\\Editor.exe"));
        launcher_.emplace(computer_.StartProcess(L"C:\\Apps\\Launcher.exe"));
        child_.emplace(launcher_->Start(L"C:\\Apps\\Tool.exe"));
        event_.emplace(agent_->CreateEvent());
        ASSERT_EQ(agent_->StartLogging(*event_, 0xffffffff), STATUS_SUCCESS);
        agent_->DrainLog();
        computer_.ClearDebugPrints();
    }
    void TearDown() override
    {
        ResetFailures();
        event_.reset();
    }

    static std::string NtPath(WideView path) { return "\\Device\\HarddiskVolume1" + Narrow(path.substr(2)); }
    void ExpectRecord(const Program& program, const char* name, ULONG level, const char* status, WideView path)
    {
        const auto records = agent_->DrainLog();
        ASSERT_EQ(records.size(), 1u);
        const LogRecord expected = {level, program.ProcessId(), name,
            std::string("IRP = CREATE Ope = PRE status = ") + status + " path = " + NtPath(path)};
        EXPECT_EQ(records[0], expected);
        EXPECT_THAT(computer_.DebugPrints(), IsEmpty());
    }
    void ExpectSilence()
    {
        EXPECT_THAT(agent_->DrainLog(), IsEmpty());
        EXPECT_THAT(computer_.DebugPrints(), IsEmpty());
    }
    void ExpectAllowed(const Program& program, const char* name, WideView path)
    {
        EXPECT_EQ(program.Open(path).Status(), STATUS_SUCCESS);
        ExpectRecord(program, name, 0x02, "0x00000000L", path);
    }
    void ExpectDenied(const Program& program, const char* name, WideView path, ULONG level = 0x08)
    {
        auto file = program.Open(path);
        EXPECT_EQ(file.Status(), STATUS_ACCESS_DENIED);
        EXPECT_EQ(file.Information(), 0u);
        ExpectRecord(program, name, level, "0xC0000022L", path);
    }
    void ExpectSilently(const Program& program, WideView path, NTSTATUS status)
    {
        EXPECT_EQ(program.Open(path).Status(), status);
        ExpectSilence();
    }
    // Adds a protection and forgets what the agent was told of it.
    void Protect(ULONG processId, WideView path)
    {
        ASSERT_EQ(agent_->AddFileProtection(processId, path).Status, STATUS_SUCCESS);
        agent_->DrainLog();
        computer_.ClearDebugPrints();
    }

    Machine computer_;
    std::optional<Program> kit_;
    std::optional<Program> agent_;
    std::optional<Program> editor_;
    std::optional<Program> launcher_;
    std::optional<Program> child_;
    std::optional<ProgramEvent> event_;
};

TEST_F(DecisionTable, AVolumeOpenPassesSilently)
{
    Boot();
    OpenRequest request;
    request.Path = L"\\??\\C:";
    EXPECT_EQ(agent_->OpenWith(request).Status(), STATUS_SUCCESS);
    ExpectSilence();
}

TEST_F(DecisionTable, AnOpenWithoutANamePasses)
{
    Boot();
    ResetFailures();
    FailFromCall(1);
    const NTSTATUS status = agent_->Open(Inside).Status();
    EXPECT_GT(InjectedFailures(), 0u);
    ResetFailures();
    EXPECT_EQ(status, STATUS_SUCCESS);
    EXPECT_THAT(agent_->DrainLog(), IsEmpty());
}

TEST_F(DecisionTable, InTheSandboxWithoutAKeyEverybodyIsDenied)
{
    Boot(false);
    ExpectDenied(*editor_, "Editor.exe", Inside);
    ExpectDenied(*agent_, "agent.exe", Inside);
    ExpectDenied(*kit_, "HbKit.exe", Inside);
}

TEST_F(DecisionTable, InTheSandboxWhoIsNotUnderItIsDenied)
{
    Boot();
    ExpectDenied(*agent_, "agent.exe", Inside);
    // A monitored parent is not under the sandbox itself, nor is a program of the product.
    ExpectDenied(*launcher_, "Launcher.exe", Inside);
    ExpectDenied(*kit_, "HbKit.exe", Inside);
}

TEST_F(DecisionTable, InTheSandboxWhoIsUnderItIsAllowed)
{
    Boot();
    ExpectAllowed(*editor_, "Editor.exe", Inside);
    ExpectAllowed(*child_, "Tool.exe", Inside);
    // Without the browser its folder is like any other.
    ExpectAllowed(*editor_, "Editor.exe", Data);
}

TEST_F(DecisionTable, TheBrowsersDataIsDeniedToWhoIsNotInItsList)
{
    Boot(true, true);
    ExpectDenied(*editor_, "Editor.exe", Data, 0x40);
    ExpectDenied(*child_, "Tool.exe", Data, 0x40);
    // Who is not under the sandbox is denied for that first.
    ExpectDenied(*agent_, "agent.exe", Data, 0x08);
    ExpectAllowed(*editor_, "Editor.exe", Inside);
}

TEST_F(DecisionTable, TheBrowsersDataIsOpenToItsList)
{
    Boot(true, true);
    // The setting comes a second time, now that its program runs.
    ASSERT_EQ(agent_->AddProcess(L"C:\\Apps\\Editor.exe").Status, STATUS_SUCCESS);
    agent_->DrainLog();
    computer_.ClearDebugPrints();
    ExpectAllowed(*editor_, "Editor.exe", Data);
    ExpectDenied(*child_, "Tool.exe", Data, 0x40);
}

TEST_F(DecisionTable, TheBrowsersFolderItselfCountsAsItsData)
{
    Boot(true, true);
    const WideView folder = L"C:\\Bay\\S\\ProgramData\\Orvane Skylet Pro";
    EXPECT_EQ(editor_->OpenDirectory(folder).Status(), STATUS_ACCESS_DENIED);
    ExpectRecord(*editor_, "Editor.exe", 0x40, "0xC0000022L", folder);
}

TEST_F(DecisionTable, PermittedOpensAreEncipheredOnlyWhileThatIsOn)
{
    Boot();
    {
        auto file = editor_->Create(L"C:\\Bay\\S\\on.txt");
        file.Write("attack at dawn");
        file.Flush();
    }
    EXPECT_NE(computer_.Disk(L"C:\\Bay\\S\\on.txt"), "attack at dawn");
    ASSERT_EQ(agent_->SetEncryption(0), STATUS_SUCCESS);
    agent_->DrainLog();
    {
        auto file = editor_->Create(L"C:\\Bay\\S\\off.txt");
        EXPECT_EQ(file.Status(), STATUS_SUCCESS);
        file.Write("attack at dawn");
        file.Flush();
    }
    EXPECT_EQ(computer_.Disk(L"C:\\Bay\\S\\off.txt"), "attack at dawn");
    computer_.ClearDebugPrints();
    ASSERT_EQ(agent_->DrainLog().size(), 1u);
    // Only the value 1 is on.
    ASSERT_EQ(agent_->SetEncryption(2), STATUS_SUCCESS);
    {
        auto file = editor_->Create(L"C:\\Bay\\S\\two.txt");
        file.Write("attack at dawn");
        file.Flush();
    }
    EXPECT_EQ(computer_.Disk(L"C:\\Bay\\S\\two.txt"), "attack at dawn");
}

TEST_F(DecisionTable, AProtectedPathIsOpenToWhoIsListed)
{
    Boot();
    Protect(agent_->ProcessId(), Outside);
    ExpectAllowed(*agent_, "agent.exe", Outside);
}

TEST_F(DecisionTable, AProtectedPathIsDeniedToWhoIsNot)
{
    Boot();
    Protect(agent_->ProcessId(), Outside);
    ExpectDenied(*kit_, "HbKit.exe", Outside);
    // To be under the sandbox is no help.
    ExpectDenied(*editor_, "Editor.exe", Outside);
    ExpectDenied(*launcher_, "Launcher.exe", Outside);
}

TEST_F(DecisionTable, OneProtectionThatListsTheProcessIsEnough)
{
    Boot();
    Protect(editor_->ProcessId(), L"C:\\Data\\*");
    Protect(agent_->ProcessId(), Outside);
    ExpectAllowed(*editor_, "Editor.exe", Outside);
    ExpectAllowed(*agent_, "agent.exe", Outside);
    ExpectDenied(*child_, "Tool.exe", Outside);
}

TEST_F(DecisionTable, InsideTheSandboxProtectionsAreNotAskedFor)
{
    Boot();
    Protect(agent_->ProcessId(), Inside);
    ExpectAllowed(*editor_, "Editor.exe", Inside);
    ExpectDenied(*agent_, "agent.exe", Inside);
}

TEST_F(DecisionTable, TheProductFolderIsSilentlyClosedToStrangers)
{
    Boot();
    ExpectSilently(*agent_, Product, STATUS_ACCESS_DENIED);
    EXPECT_EQ(agent_->OpenDirectory(L"C:\\Bay").Status(), STATUS_ACCESS_DENIED);
    EXPECT_EQ(agent_->OpenDirectory(L"C:\\BAY\\bin").Status(), STATUS_ACCESS_DENIED);
    EXPECT_EQ(agent_->Create(L"C:\\Bay\\new.txt").Status(), STATUS_ACCESS_DENIED);
    ExpectSilence();
    EXPECT_FALSE(computer_.DiskHas(L"C:\\Bay\\new.txt"));
}

TEST_F(DecisionTable, TheProductFolderIsSilentlyOpenToItsOwn)
{
    Boot();
    // A monitored parent, programs under the sandbox, a program of the product.
    ExpectSilently(*launcher_, Product, STATUS_SUCCESS);
    ExpectSilently(*editor_, Product, STATUS_SUCCESS);
    ExpectSilently(*child_, Product, STATUS_SUCCESS);
    ExpectSilently(*kit_, Product, STATUS_SUCCESS);
}

TEST_F(DecisionTable, InTheProductFolderAProtectionDecidesFirst)
{
    Boot();
    Protect(agent_->ProcessId(), Product);
    ExpectAllowed(*agent_, "agent.exe", Product);
    ExpectDenied(*kit_, "HbKit.exe", Product);
    ExpectSilently(*agent_, L"C:\\Bay\\HbKit.exe", STATUS_ACCESS_DENIED);
}

TEST_F(DecisionTable, AnythingElsePassesSilently)
{
    Boot();
    for (const Program& program : {*agent_, *editor_, *launcher_, *child_, *kit_})
    {
        ExpectSilently(program, Outside, STATUS_SUCCESS);
    }
    EXPECT_EQ(agent_->Create(L"C:\\Data\\new.txt").Status(), STATUS_SUCCESS);
    ExpectSilence();
    ASSERT_EQ(computer_.PutOnDisk(L"C:\\Bayou\\a", "a"), STATUS_SUCCESS);
    ExpectSilently(*agent_, L"C:\\Bayou\\a", STATUS_SUCCESS);
}

TEST_F(DecisionTable, OnceItsOnlyAllowedProcessIsGoneAProtectedFileIsClosedToAll)
{
    Boot();
    const Program reader = computer_.StartProcess(L"C:\\Apps\\Reader.exe");
    Protect(reader.ProcessId(), Outside);
    ExpectAllowed(reader, "Reader.exe", Outside);
    reader.Exit();
    agent_->DrainLog();
    computer_.ClearDebugPrints();
    ExpectDenied(*agent_, "agent.exe", Outside);
    // Not even a stop opens it.
    ASSERT_EQ(agent_->StopDriver(), STATUS_SUCCESS);
    agent_->DrainLog();
    computer_.ClearDebugPrints();
    ExpectDenied(*agent_, "agent.exe", Outside);
}

TEST_F(DecisionTable, TheSystemIsJudgedLikeAnyOther)
{
    Boot();
    Protect(agent_->ProcessId(), Outside);
    for (const WideView path : {Inside, Outside, Product})
    {
        OpenRequest request;
        request.Path = L"\\??\\" + WideString(path);
        request.Mode = KernelMode;
        PFILE_OBJECT file = nullptr;
        EXPECT_EQ(OpenFile(request, &file), STATUS_ACCESS_DENIED) << Narrow(path);
        request.Disposition = FILE_OPEN_IF;
        EXPECT_EQ(OpenFile(request, &file), STATUS_ACCESS_DENIED) << Narrow(path);
    }
}
}
}
