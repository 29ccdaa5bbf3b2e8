// The parameter dump as the command line shows it.
#include "agent/tarnctl/dump_line.h"
#include "tests/unit/agent/tarnctl_fixture.h"

namespace tarnctl_test
{
namespace
{
class TarnctlDump : public TarnctlTest
{
protected:
    // Of headers and list items.
    void EnableLines() { machine_.Registry().SetDword(Machine::ProductKey, L"DebugLogLevel", 0x4100); }

    std::string Who() { return "[tarnctl.exe (" + std::to_string(program_.ProcessId()) + ")]"; }
};

INSTANTIATE_TEST_SUITE_P(Ways, TarnctlDump, AllWays, WayName);

TEST_P(TarnctlDump, LinesAreAsTheDriverWroteThem)
{
    EnableLines();
    ASSERT_EQ(program_.SetCryptKey(std::string(24, 'k'), 7), STATUS_SUCCESS);
    ASSERT_EQ(program_.AddProcess(L"C:\\Apps\\Editor.exe").Status, STATUS_SUCCESS);
    const std::string output = Output({"dump"});
    EXPECT_THAT(output, AllOf(StartsWith("0|"), HasSubstr(Who() + " IRP = DEV_CTRL IOCTL = OUTPUT_PARAM\n"),
                            HasSubstr("Param : Length = 24 Key = Exists Xor = Exists Encryption = Enable\n"),
                            HasSubstr("Param : SandboxPath = \\Device\\HarddiskVolume1\\Sandbox\n"),
                            HasSubstr("Param : ProcessName : Count = 1\n"),
                            HasSubstr("Tarnveil : Info " + Who() + " Param : ProcessName : C:\\Apps\\Editor.exe\n"),
                            Not(HasSubstr("\r")), Not(HasSubstr("kkkk"))));
    // The mailslot is gone with the run.
    EXPECT_EQ(Output({"dump"}).size(), output.size());
}

TEST_P(TarnctlDump, LinesAreTakenApart)
{
    EnableLines();
    const std::string json = Output({"dump", "--json"});
    EXPECT_THAT(json, StartsWith("{\"lines\":[{\"time\":\""));
    EXPECT_THAT(json,
        AllOf(HasSubstr("\",\"process\":\"tarnctl.exe\",\"pid\":" + std::to_string(program_.ProcessId()) + ",\"tid\":"),
            HasSubstr(",\"level\":\"Trace\",\"message\":\"IRP = DEV_CTRL IOCTL = OUTPUT_PARAM\"},{"),
            HasSubstr("\"Param : SandboxPath = \\\\Device\\\\HarddiskVolume1\\\\Sandbox\"")));
    EXPECT_EQ(json.substr(json.size() - 5), "\"}]}\n");
}

TEST_P(TarnctlDump, NoLineIsExplained)
{
    const Outcome text = Run({"dump"});
    EXPECT_EQ(text.Exit, 0);
    EXPECT_EQ(text.Output, "");
    EXPECT_THAT(text.Error, HasSubstr("DebugLogLevel"));
    EXPECT_EQ(Run({"dump", "--json"}).Output, "{\"lines\":[]}\n");
}

TEST_P(TarnctlDump, AnotherReaderIsTrouble)
{
    EnableLines();
    const auto other = machine_.CreateMailslot(L"\\Device\\Mailslot\\OrvaneSandbox_Dbg");
    const Outcome outcome = Run({"dump"});
    EXPECT_EQ(outcome.Exit, 4);
    EXPECT_EQ(outcome.Output, "");
    EXPECT_THAT(outcome.Error, HasSubstr("STATUS_OBJECT_NAME_COLLISION (0xC0000035)"));
}

TEST(TarnctlDumpLine, TerminatorAndLineEndGo)
{
    using namespace std::string_view_literals;
    EXPECT_EQ(tarnctl::LineOf(u"text\r\n\0"sv), "text");
    EXPECT_EQ(tarnctl::LineOf(u"\r\n\0"sv), "");
    EXPECT_EQ(tarnctl::LineOf(u""sv), "");
    EXPECT_EQ(tarnctl::LineOf(u" a\r\nb "sv), " a\r\nb ");
}

TEST(TarnctlDumpLine, Fields)
{
    EXPECT_EQ(tarnctl::DumpLineJson("0|2026/03/05 09:07:02 [a (b) [c].exe (4312)] tid=44 Tarnveil : Warn "
                                    "[a (b) [c].exe (4312)] Param : \"x\" [y (1)] z"),
        "{\"time\":\"2026/03/05 09:07:02\",\"process\":\"a (b) [c].exe\",\"pid\":4312,\"tid\":44,"
        "\"level\":\"Warn\",\"message\":\"Param : \\\"x\\\" [y (1)] z\"}");
}

TEST(TarnctlDumpLine, AnotherFormIsKeptWhole)
{
    for (const char* line :
        {"", "0|", "something else", "0|2026/03/05 09:07:02 [a.exe (1)] tid=x Tarnveil : Info [a.exe (1)] m",
            "0|2026/03/05 09:07:02 [a.exe (1)] tid=1 Tarnveil"})
    {
        EXPECT_EQ(tarnctl::DumpLineJson(line), "{\"message\":\"" + std::string(line) + "\"}");
    }
}
}
}
