// Settings made and removed from the command line, seen in who is under the sandbox.
#include "tests/unit/agent/tarnctl_fixture.h"

namespace tarnctl_test
{
namespace
{
class TarnctlSettings : public TarnctlTest
{
};

INSTANTIATE_TEST_SUITE_P(Ways, TarnctlSettings, AllWays, WayName);

TEST_P(TarnctlSettings, AProcessSettingComesAndGoes)
{
    const std::string added = Output({"process", "add", "C:\\Apps\\Editor.exe", "--json"});
    const ULONG id = AddedId(added);
    EXPECT_EQ(added, "{\"id\":" + std::to_string(id) + ",\"path\":\"C:\\\\Apps\\\\Editor.exe\"}\n");
    // Adding it again answers the same id, in the other form.
    EXPECT_EQ(Output({"process", "add", "c:\\apps\\EDITOR.exe"}), "id " + std::to_string(id) + "\n");

    const Program editor = machine_.StartProcess(L"C:\\Apps\\Editor.exe");
    EXPECT_EQ(program_.IsUnderSandbox(editor.ProcessId()).Value, 1u);
    EXPECT_EQ(
        Output({"process", "remove", std::to_string(id), "--json"}), "{\"removed\":" + std::to_string(id) + "}\n");
    EXPECT_EQ(program_.IsUnderSandbox(editor.ProcessId()).Value, 0u);
}

TEST_P(TarnctlSettings, AParentTakesItsChildrenAlong)
{
    const ULONG id = AddedId(Output({"parent", "add", "--json", "C:\\Apps\\Shell.exe"}));
    const Program shell = machine_.StartProcess(L"C:\\Apps\\Shell.exe");
    const Program child = shell.Start(L"C:\\Apps\\Tool.exe");
    EXPECT_THAT(program_.PidList().Ids, testing::ElementsAre(child.ProcessId()));
    EXPECT_EQ(
        Output({"parent", "remove", std::to_string(id)}), "id " + std::to_string(id) + " is no setting any more\n");
    EXPECT_THAT(program_.PidList().Ids, IsEmpty());
}

TEST_P(TarnctlSettings, AnExcludedProgramStaysOutside)
{
    Output({"process", "add", "C:\\Apps\\Editor.exe"});
    const ULONG id = AddedId(Output({"exclude", "add", "C:\\Apps\\Editor.exe", "--json"}));
    const Program outside = machine_.StartProcess(L"C:\\Apps\\Editor.exe");
    EXPECT_EQ(program_.IsUnderSandbox(outside.ProcessId()).Value, 0u);
    Output({"exclude", "remove", "0x" + (std::ostringstream() << std::hex << id).str()});
    const Program inside = machine_.StartProcess(L"C:\\Apps\\Editor.exe");
    EXPECT_EQ(program_.IsUnderSandbox(inside.ProcessId()).Value, 1u);
}

TEST_P(TarnctlSettings, NamesBeyondAsciiReachTheDriver)
{
    Output({"process", "add", "C:\\Äpps\\日本\\𝄞.exe"});
    const Program program = machine_.StartProcess(L"C:\\Äpps\\日本\\𝄞.exe");
    EXPECT_EQ(program_.IsUnderSandbox(program.ProcessId()).Value, 1u);
}

TEST_P(TarnctlSettings, TextThatIsNoUtf8IsWrongUse)
{
    const Outcome outcome = Run({"process", "add", "C:\\\xC3("});
    EXPECT_EQ(outcome.Exit, 2);
    EXPECT_EQ(outcome.Output, "");
    EXPECT_EQ(outcome.Error, "tarnctl: the path is no valid text\n");
}

TEST_P(TarnctlSettings, APathThatTheDriverRefusesIsNamedWithItsStatus)
{
    const Outcome text = Run({"protect", "add", "4", "no drive"});
    EXPECT_EQ(text.Exit, 1);
    EXPECT_EQ(text.Output, "");
    EXPECT_EQ(text.Error, "tarnctl: IOCTL_ADD_FILE_PROTECTION was refused: STATUS_INVALID_PARAMETER (0xC000000D)\n");
    const Outcome json = Run({"protect", "add", "--json", "4", "Z:\\file"});
    EXPECT_EQ(json.Exit, 1);
    EXPECT_EQ(json.Output, "{\"error\":{\"request\":\"IOCTL_ADD_FILE_PROTECTION\",\"status\":\"STATUS_OBJECT_NAME_NOT_"
                           "FOUND\",\"code\":\"0xC0000034\",\"message\":\"IOCTL_ADD_FILE_PROTECTION was refused: "
                           "STATUS_OBJECT_NAME_NOT_FOUND (0xC0000034)\",\"exit\":1}}\n");
}

TEST_P(TarnctlSettings, AProtectedFileOpensForItsProcessOnly)
{
    const WideView ledger = L"C:\\Data\\ledger.db";
    ASSERT_EQ(machine_.PutOnDisk(ledger, "sums"), STATUS_SUCCESS);
    const Program owner = machine_.StartProcess(L"C:\\Apps\\Books.exe");
    const Program other = machine_.StartProcess(L"C:\\Apps\\Other.exe");
    const ULONG id = AddedId(Output({"protect", "add", std::to_string(owner.ProcessId()), "C:\\Data\\*.db", "--json"}));
    EXPECT_EQ(owner.Open(ledger).Status(), STATUS_SUCCESS);
    EXPECT_EQ(other.Open(ledger).Status(), STATUS_ACCESS_DENIED);
    EXPECT_EQ(
        Output({"protect", "remove", std::to_string(id), "--json"}), "{\"removed\":" + std::to_string(id) + "}\n");
    EXPECT_EQ(owner.Open(ledger).Status(), STATUS_ACCESS_DENIED);
}
}
}
