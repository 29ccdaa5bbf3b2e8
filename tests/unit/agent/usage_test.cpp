// Wrong use and help.
#include "agent/tarnctl/json.h"
#include "agent/tarnctl/status_names.h"
#include "agent/tarnctl/text.h"
#include "tests/unit/agent/tarnctl_fixture.h"
#include "tests/support/temporary_folder.h"

namespace tarnctl_test
{
namespace
{
using Arguments = std::vector<std::string>;
const std::string Digits = "00112233445566778899aabbccddeeff5a";

TEST(TarnctlUsage, EveryCommandHasHelpWithExamples)
{
    const Arguments commands[] = {
        {},
        {"key"},
        {"key", "set"},
        {"process"},
        {"process", "add"},
        {"process", "remove"},
        {"parent"},
        {"parent", "add"},
        {"parent", "remove"},
        {"exclude"},
        {"exclude", "add"},
        {"exclude", "remove"},
        {"protect"},
        {"protect", "add"},
        {"protect", "remove"},
        {"start"},
        {"stop"},
        {"encryption"},
        {"under-sandbox"},
        {"pids"},
        {"status"},
        {"dump"},
        {"log"},
        {"log", "follow"},
        {"log", "stop"},
        {"recover"},
        {"conceal"},
    };
    for (Arguments arguments : commands)
    {
        std::string line = "tarnctl";
        for (const std::string& argument : arguments)
        {
            line += " " + argument;
        }
        arguments.emplace_back("--help");
        const Outcome outcome = RunWith(NoWay, arguments);
        EXPECT_EQ(outcome.Exit, 0) << line;
        EXPECT_EQ(outcome.Error, "");
        EXPECT_THAT(outcome.Output, AllOf(HasSubstr("Usage: " + line), HasSubstr("\nExamples:\n  " + line)));
    }
}

TEST(TarnctlUsage, WrongCommandLinesAreWrongUse)
{
    const Arguments lines[] = {
        {},
        {"bogus"},
        {"--bogus"},
        {"key"},
        {"key", "set"},
        {"key", "set", "--from-file", "a", "--hex", Digits},
        {"process"},
        {"process", "add"},
        {"process", "add", "a", "b"},
        {"process", "remove"},
        {"process", "remove", "x"},
        {"process", "remove", ""},
        {"process", "remove", "0x"},
        {"process", "remove", "1 "},
        {"process", "remove", "4294967296"},
        {"process", "remove", "99999999999999999999999"},
        {"process", "rename", "1"},
        {"parent", "remove", "-1"},
        {"exclude", "remove", "1.5"},
        {"protect", "add", "4"},
        {"protect", "add", "C:\\a", "4"},
        {"start", "now"},
        {"stop", "start"},
        {"encryption"},
        {"encryption", "maybe"},
        {"under-sandbox"},
        {"under-sandbox", "0x100000000"},
        {"pids", "4"},
        {"log", "follow", "--levels", "everything"},
        {"log", "follow", "--count", "few"},
        {"recover", "a", "b"},
        {"recover", "--key-file", "k", "a"},
        {"recover", "--key-file", "k", "a", "b", "--size", "-1"},
        {"recover", "--key-file", "k", "a", "b", "--mask", "256"},
        {"conceal", "--key-file"},
    };
    for (const Arguments& arguments : lines)
    {
        const Outcome outcome = RunWith(NoWay, arguments);
        EXPECT_EQ(outcome.Exit, 2) << testing::PrintToString(arguments);
        EXPECT_EQ(outcome.Output, "");
        EXPECT_THAT(outcome.Error, AllOf(StartsWith("tarnctl: "), HasSubstr("--help")));
    }
}

TEST(TarnctlUsage, AWrongUseInJson)
{
    const Outcome outcome = RunWith(NoWay, {"under-sandbox", "x", "--json"});
    EXPECT_EQ(outcome.Exit, 2);
    EXPECT_EQ(outcome.Output, "{\"error\":{\"message\":\"PID: is not a number from 0 to 4294967295; tarnctl --help and "
                              "tarnctl COMMAND --help tell more\",\"exit\":2}}\n");
    EXPECT_THAT(outcome.Error, HasSubstr("PID: is not a number from 0 to 4294967295"));
    EXPECT_EQ(RunWith(NoWay, {"bogus", "--json"}).Output,
        "{\"error\":{\"message\":\"A subcommand is required; tarnctl --help and tarnctl COMMAND --help tell "
        "more\",\"exit\":2}}\n");
}

TEST(TarnctlUsage, AKeyIsNeverRepeated)
{
    const std::string part = Digits.substr(4, 6);
    const Arguments lines[] = {
        {"key", "set", Digits},
        {"key", Digits},
        {Digits},
        {"kye", "set", "--hex", Digits},
        {"key", "set", "--hexx=" + Digits},
        {"key", "set", "--hex", Digits, Digits},
        {"key", "set", "--hex", "00", "112233445566"},
        {"key", "set", "--hex", Digits + "x"},
        {"key", "set", "--hex", Digits + "0"},
        {"key", "set", "--hex", Digits + "00"},
        {"process", "remove", Digits},
        {"key", "set", "--from-file", "a", "--hex", Digits},
    };
    for (const Arguments& arguments : lines)
    {
        const Outcome outcome = RunWith(NoWay, arguments);
        EXPECT_EQ(outcome.Exit, 2) << testing::PrintToString(arguments);
        EXPECT_THAT(outcome.Output + outcome.Error, Not(HasSubstr(part)));
    }
    const Outcome unreachable = RunWith(NoWay, {"key", "set", "--hex", Digits});
    EXPECT_EQ(unreachable.Exit, 3);
    EXPECT_THAT(unreachable.Error, AllOf(HasSubstr("warning"), Not(HasSubstr(part))));
}

TEST(TarnctlUsage, KeyFilesOfWrongLengthOrContent)
{
    TemporaryFolder folder;
    for (const size_t bytes : {0, 1, 16, 18, 24, 26, 32, 34, 41, 600})
    {
        folder.Put("key", std::string(bytes, 'K'));
        const Outcome outcome = RunWith(NoWay, {"key", "set", "--from-file", folder.Path("key")});
        EXPECT_EQ(outcome.Exit, 2) << bytes;
        EXPECT_THAT(outcome.Error, AllOf(HasSubstr(folder.Path("key")), Not(HasSubstr("KKKK"))));
    }
    for (const char* text : {"00:11:22:33:44:55:66:77:88:99:aa:bb:cc:dd:ee:ff:5A\n",
             "00112233 44556677\r\n8899AABB CCDDEEFF 5a", "00112233445566778899aabbccddeeff5a"})
    {
        folder.Put("key", text);
        EXPECT_EQ(RunWith(NoWay, {"key", "set", "--from-file", folder.Path("key")}).Exit, 3) << text;
    }
    EXPECT_EQ(RunWith(NoWay, {"key", "set", "--from-file", folder.Path("absent")}).Exit, 2);
    EXPECT_EQ(RunWith(NoWay, {"key", "set", "--from-file", folder.Path("")}).Exit, 2);
}

TEST(TarnctlText, Utf16AndBack)
{
    for (const char* text : {"", "plan", "Ä", "日本", "𝄞", "\xEF\xBF\xBD", "\xF4\x8F\xBF\xBF"})
    {
        const std::optional<std::u16string> wide = tarnctl::ToUtf16(text);
        ASSERT_TRUE(wide) << text;
        EXPECT_EQ(tarnctl::ToUtf8(*wide), text);
    }
    EXPECT_EQ(tarnctl::ToUtf16("𝄞"), u"\xD834\xDD1E");
    for (const char* text : {"\x80", "\xC0\x80", "\xC3", "\xE2\x82", "\xED\xA0\x80", "\xF4\x90\x80\x80",
             "\xF5\x80\x80\x80", "\xE0\x80\x80", "\xC3("})
    {
        EXPECT_FALSE(tarnctl::ToUtf16(text));
    }
    EXPECT_EQ(tarnctl::ToUtf8(std::u16string{u'a', char16_t(0xD834)}), "a\xEF\xBF\xBD");
    EXPECT_EQ(tarnctl::ToUtf8(std::u16string{char16_t(0xDD1E), u'b'}), "\xEF\xBF\xBD"
                                                                       "b");
    EXPECT_EQ(tarnctl::ToUtf8(std::u16string{char16_t(0xD834), char16_t(0xD834), char16_t(0xDD1E)}), "\xEF\xBF\xBD𝄞");
}

TEST(TarnctlText, ControlCharactersAreShown)
{
    EXPECT_EQ(tarnctl::Printable("a\x1B[2Jb\n\x7F\t"), "a\\x1B[2Jb\\x0A\\x7F\\x09");
    EXPECT_EQ(tarnctl::JsonString("a\"\\\n\x1B日"), "\"a\\\"\\\\\\u000a\\u001b日\"");
}

TEST(TarnctlText, Statuses)
{
    EXPECT_EQ(tarnctl::StatusText(static_cast<std::uint32_t>(STATUS_ACCESS_VIOLATION)),
        "STATUS_ACCESS_VIOLATION (0xC0000005)");
    EXPECT_EQ(
        tarnctl::StatusText(static_cast<std::uint32_t>(STATUS_NO_MORE_ENTRIES)), "STATUS_NO_MORE_ENTRIES (0x8000001A)");
    EXPECT_EQ(tarnctl::StatusText(0x12345678), "0x12345678");
}
}
}
