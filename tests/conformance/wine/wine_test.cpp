// The shipping image as a service of an independent implementation of the Windows kernel's interfaces, driven by the
// agent for Windows. What Wine does not carry is skipped by name.

#include "tests/conformance/wine/wine_session.h"
#include "tests/support/shell.h"
#include "tests/support/text.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <optional>
#include <sys/personality.h>

namespace
{
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Matches;
using testing::MatchesRegex;
using testing::Not;
using testing::StartsWith;

// As "reg add" takes binary data.
std::string Utf16Hex(const std::string& text)
{
    std::string hex;
    char piece[5];
    for (const char letter : text)
    {
        std::snprintf(piece, sizeof piece, "%02x00", static_cast<unsigned char>(letter));
        hex += piece;
    }
    return hex;
}

class UnderWine : public testing::Test
{
protected:
    static void SetUpTestSuite()
    {
        prefix.emplace(std::vector<std::filesystem::path>{TARNVEIL_IMAGE, TARNVEIL_AGENT});
        created = prefix->Run({"sc create Tarnveil binPath= C:\\Tarnveil.sys type= filesys start= demand"});
    }
    static void TearDownTestSuite() { prefix.reset(); }

    static constexpr char ServiceKey[] = "HKLM\\System\\CurrentControlSet\\Services\\Tarnveil";
    static constexpr char ProductKey[] = "\"HKLM\\SOFTWARE\\WOW6432Node\\Orvane Works\\Hollowbay\"";

    // A registry value that is there while one system runs.
    struct Value
    {
        const char* Key;
        const char* Name;
        const char* Type;
        std::string Data;
    };

    // A system with the service started, in which the agent gets these command lines; each is followed by its exit
    // code.
    static wine::Prefix::Outcome WithDriver(
        const std::vector<std::string>& commands, const std::vector<Value>& values = {})
    {
        std::vector<std::string> lines;
        for (const Value& value : values)
        {
            lines.push_back(std::string("reg add ") + value.Key + " /v " + value.Name + " /t " + value.Type + " /d " +
                            value.Data + " /f > nul");
        }
        lines.push_back("sc start Tarnveil > nul");
        for (const std::string& command : commands)
        {
            lines.push_back("C:\\tarnctl.exe " + command);
            lines.push_back("echo code=%ERRORLEVEL%");
        }
        for (const Value& value : values)
        {
            lines.push_back(std::string("reg delete ") + value.Key + " /v " + value.Name + " /f > nul");
        }
        return prefix->Run(lines);
    }
    static void ForgetProtections()
    {
        prefix->Run({"reg delete " + std::string(ServiceKey) + " /v ProtectionFiles /f > nul"});
    }

    static std::string Registry(const std::string& value)
    {
        return prefix->Run({"reg query " + std::string(ServiceKey) + " /v " + value}).Output;
    }

    static std::optional<wine::Prefix> prefix;
    static wine::Prefix::Outcome created;
};

std::optional<wine::Prefix> UnderWine::prefix;
wine::Prefix::Outcome UnderWine::created;

// A fault of Wine's own processes while a test's programs run would be a line between theirs.
TEST_F(UnderWine, WhatWineSaysIsNotTheProgramsOutput)
{
    const auto outcome =
        prefix->Run({"echo in front", "rundll32 kernel32.dll,DebugBreak > nul 2>&1", "nosuch", "echo behind"});
    EXPECT_THAT(Lines(outcome.Output), ElementsAre("in front", HasSubstr("'nosuch'"), "behind"));
    EXPECT_THAT(outcome.Notes, HasSubstr("wine: Unhandled exception 0x80000003"));
}

TEST_F(UnderWine, WinesBusDriversAreNotLoaded)
{
    const auto outcome = prefix->Run({"sc query winebus", "sc query wineusb"});
    EXPECT_THAT(Lines(outcome.Output), Contains(HasSubstr("STOPPED")).Times(2)) << outcome.Output;
}

TEST_F(UnderWine, ProgramsRunWithoutRandomisedAddresses)
{
    if (RunShell("setarch -R true 2>&1").Code != 0)
    {
        GTEST_SKIP() << "addresses cannot be fixed here, so now and then a program under Wine will not start";
    }
    const TemporaryFolder folder;
    prefix->Run({"start /wait /unix /bin/cp /proc/self/personality " + folder.Path("personality")});
    EXPECT_NE(std::stoul(folder.Get("personality"), nullptr, 16) & ADDR_NO_RANDOMIZE, 0u);
}

// Wine's DbgPrint does not know counted strings and prints the conversion's last letter, so only what stands in front
// of them is compared.
TEST_F(UnderWine, TheLoadPrintsItsSteps)
{
    const auto outcome = WithDriver({"status"});
    EXPECT_THAT(outcome.Output, HasSubstr("driver: reachable\n"));
    ASSERT_GE(outcome.Prints.size(), 8u) << outcome.Output;
    const std::vector<std::string> load(outcome.Prints.begin(), outcome.Prints.begin() + 8);
    EXPECT_THAT(load,
        ElementsAre(StartsWith("Tarnveil Driver Entry "), "Tarnveil.sys: ", StartsWith("Failed to ZwOpenKey. Path = "),
            StartsWith("Tarnveil - OS Version: 0x"), "SandboxCryptKey Query c0000034", StartsWith("Create NT Device "),
            StartsWith("Tarnveil - IoCreateSymbolicLink success "), "Tarnveil DriverEntry return 0"));
}

// One program after the other, each with its own handle to the device; ids count on over all lists.
TEST_F(UnderWine, EveryRequestIsAnswered)
{
    const auto outcome = WithDriver({"key set --hex 000102030405060708090a0b0c0d0e0f5c",
        "process add C:\\Apps\\Editor.exe", "parent add C:\\Apps\\Shell.exe", "exclude add C:\\Apps\\Never.exe",
        "start", "encryption off", "encryption on", "protect add 100 C:\\Data\\secret.txt", "protect remove 3",
        "process remove 0", "under-sandbox 4", "pids", "log stop", "stop", "start", "status"});
    EXPECT_THAT(Lines(outcome.Output), ElementsAre(StartsWith("tarnctl: warning: a key on the command line"),
                                           "accepted; a key that was there before stays in force", "code=0", //
                                           "id 0", "code=0",                                                 //
                                           "id 0", "code=0",                                                 //
                                           "id 0", "code=0",                                                 //
                                           "started", "code=0",                                              //
                                           "encryption is off", "code=0",                                    //
                                           "encryption is on", "code=0",                                     //
                                           "id 0", "code=0",                                                 //
                                           "id 3 is no setting any more", "code=0",                          //
                                           "id 0 is no setting any more", "code=0",                          //
                                           "no", "code=0",                                                   //
                                           "code=0",                                                         //
                                           "logging has ended", "code=0",                                    //
                                           "stopped", "code=0",                                              //
                                           "started", "code=0",                                              //
                                           "driver: reachable", "processes under the sandbox: 0", "code=0"));
    // The ids that the driver gave out; the answers' buffers do not travel back, see below.
    for (const char* text : {"Tarnveil - IOCTL_SET_CRYPTKEY 17", "[IDMan] IssueId = 0", "[IDMan] IssueId = 1",
             "[IDMan] IssueId = 2", "[IDMan] IssueId = 3", "Tarnveil - IOCTL_START",
             "Tarnveil - IOCTL_SET_ENCRYPTION: Encryption = 0", "Tarnveil - IOCTL_SET_ENCRYPTION: Encryption = 1",
             "Tarnveil - IOCTL_ADD_FILE_PROTECTION: pid =  100 path = 'C:\\Data\\secret.txt', id(3)",
             "Tarnveil - IOCTL_DEL_FILE_PROTECTION: id(3)", "Tarnveil - IOCTL_DEL_PROCESS: id(0)",
             "[IDMan] ReleaseId = 0", "Tarnveil - IOCTL_GET_PID_LIST_UNDER_SANDBOX", "Tarnveil - IOCTL_STOP_LOGGING",
             "Tarnveil - IOCTL_STOP"})
    {
        EXPECT_THAT(outcome.Prints, Contains(text));
    }
    EXPECT_THAT(outcome.Prints, Not(Contains("Tarnveil - Tried to override the crypt key.")));
    ForgetProtections();
}

TEST_F(UnderWine, ARefusalIsSaidByNameAndNumber)
{
    // A pattern begins with a drive.
    const auto outcome = WithDriver({"process add *\\Editor.exe"});
    EXPECT_EQ(
        outcome.Output, "tarnctl: IOCTL_ADD_PROCESS was refused: STATUS_INVALID_PARAMETER (0xC000000D)\ncode=1\n");
    EXPECT_THAT(outcome.Prints, Contains("Tarnveil - RegistMonitoredProcess error - c000000d"));
}

TEST_F(UnderWine, AnswersReachTheCaller)
{
    const auto outcome = WithDriver({"process add C:\\Apps\\First.exe", "process add C:\\Apps\\Second.exe"});
    ASSERT_THAT(outcome.Prints, Contains("[IDMan] IssueId = 1"));
    if (outcome.Output == "id 0\ncode=0\nid 0\ncode=0\n")
    {
        GTEST_SKIP() << "this Wine takes answers back to the caller only as far as the byte count says, which is 0";
    }
    EXPECT_EQ(outcome.Output, "id 0\ncode=0\nid 1\ncode=0\n");
}

TEST_F(UnderWine, RunningProcessesAreKnownByTheirImages)
{
    const auto outcome = WithDriver({"process add C:\\tarnctl.exe", "start"});
    EXPECT_THAT(outcome.Prints, Contains("Tarnveil - IOCTL_START"));
    if (Matches(Contains("QueryInformationProcess Failed: c0000022"))(outcome.Prints))
    {
        GTEST_SKIP()
            << "this Wine refuses queries through a process handle that was opened in kernel mode with access 0";
    }
    EXPECT_THAT(outcome.Prints, Not(Contains(HasSubstr("QueryInformationProcess Failed"))));
}

TEST_F(UnderWine, AKeyOfTheRegistryCannotBeOverridden)
{
    const auto outcome = WithDriver({"key set --hex 000102030405060708090a0b0c0d0e0f5c"},
        {{ServiceKey, "SandboxCryptKey", "REG_BINARY", "000102030405060708090a0b0c0d0e0f5c"}});
    EXPECT_THAT(outcome.Prints, Contains("SandboxCryptKey Query 80000005"));
    EXPECT_THAT(outcome.Prints, Contains("Tarnveil - Tried to override the crypt key."));
    EXPECT_THAT(outcome.Output, HasSubstr("code=0\n"));
}

TEST_F(UnderWine, AKeyOfAnotherLengthEndsTheConfiguration)
{
    const auto outcome = WithDriver({"key set --hex 000102030405060708090a0b0c0d0e0f5c"},
        {{ServiceKey, "SandboxCryptKey", "REG_BINARY", "000102030405060708090a0b0c0d0e0f10111213"},
            {ServiceKey, "SandboxPath", "REG_SZ", "\\Device\\HarddiskVolume1\\Sandbox"}});
    EXPECT_THAT(outcome.Prints, Contains("KeyLength fail 19"));
    EXPECT_THAT(outcome.Prints, Not(Contains(StartsWith("SandboxPath "))));
    EXPECT_THAT(outcome.Prints, Contains("Tarnveil - Tried to override the crypt key."));
}

// The installer writes "ABCDEF0@" in UTF-16, as base64 text, which is UTF-16 again.
TEST_F(UnderWine, TheProductKeyIsRead)
{
    const auto outcome =
        WithDriver({"start"}, {{ProductKey, "InstallerType", "REG_BINARY", Utf16Hex("QQBCAEMARABFAEYAMABAAAAA")},
                                  {ProductKey, "InstallFolder", "REG_SZ", "C:\\Hollowbay"}});
    EXPECT_THAT(outcome.Prints, Contains("Decoded InstallerType = ABCDEF0@"));
    EXPECT_THAT(outcome.Prints, Contains("Installer Mode = 0"));
    EXPECT_THAT(outcome.Prints, Contains(StartsWith("ProductPath = ")));
    EXPECT_THAT(outcome.Prints, Not(Contains(StartsWith("Failed to "))));
}

TEST_F(UnderWine, AProductKeyOfAnotherTypeIsRejected)
{
    const auto outcome = WithDriver({"start"}, {{ProductKey, "InstallerType", "REG_SZ", "QQBCAEMARABFAEYAMABAAAAA"}});
    EXPECT_THAT(outcome.Prints, Contains("(InstallerType) Unexpected REG_XXX type = 00000001"));
    EXPECT_THAT(outcome.Output, HasSubstr("code=0\n"));
}

TEST_F(UnderWine, TheParametersAreDumpedThroughTheMailslot)
{
    const auto outcome = WithDriver({"parent add C:\\Apps\\Shell.exe", "encryption off", "dump"},
        {{ProductKey, "DebugLogLevel", "REG_DWORD", "0x4100"},
            {ServiceKey, "SandboxCryptKey", "REG_BINARY", "000102030405060708090a0b0c0d0e0f5c"},
            {ServiceKey, "SandboxPath", "REG_SZ", "\\Device\\HarddiskVolume1\\Sandbox"}});
    EXPECT_THAT(outcome.Prints, Contains("DebugLogFlags 0x41"));
    std::vector<std::string> lines;
    for (const std::string& line : Lines(outcome.Output))
    {
        const size_t message = line.find("] ", line.find("Tarnveil : "));
        if (message != std::string::npos)
        {
            EXPECT_THAT(
                line, MatchesRegex("0\\|....\\/..\\/.. ..:..:.. \\[tarnctl.exe \\(.+\\)\\] tid=.* Tarnveil : .*"));
            lines.push_back(line.substr(message + 2));
        }
    }
    // Wine's formatting does not know counted strings either.
    EXPECT_THAT(lines,
        ElementsAre("IRP = DEV_CTRL IOCTL = OUTPUT_PARAM", StartsWith("Param : RegPath = "),
            "Param : Length = 16 Key = Exists Xor = Exists Encryption = Disable", StartsWith("Param : SandboxPath = "),
            StartsWith("Param : PrefixSandboxPath = "), "Param : ParentName : Count = 1",
            StartsWith("Param : ParentName : "), "Param : ProcessName : Count = 0", "Param : ExcProcName : Count = 0",
            "Param : Parent : Count = 0", "Param : Child : Count = 0", "Param : Cache : Process : Count = 0"));
}

TEST_F(UnderWine, WithoutAReaderTheDumpSaysSo)
{
    const auto outcome = WithDriver({"dump"});
    EXPECT_THAT(outcome.Prints, Contains("GetDebugLogFlags failed."));
    EXPECT_THAT(outcome.Output, HasSubstr("code=0\n"));
}

TEST_F(UnderWine, ProtectedPathsAreKeptInTheRegistryAndReadBack)
{
    WithDriver({"protect add 100 C:\\first.txt"},
        {{ServiceKey, "SandboxPath", "REG_SZ", "\\Device\\HarddiskVolume1\\Sandbox"}});
    EXPECT_THAT(Registry("ProtectionFiles"), HasSubstr("first.txt"));
    // Written anew with what the load read back.
    WithDriver({"protect add 100 C:\\second.txt"},
        {{ServiceKey, "SandboxPath", "REG_SZ", "\\Device\\HarddiskVolume1\\Sandbox"}});
    const std::string stored = Registry("ProtectionFiles");
    EXPECT_THAT(stored, HasSubstr("first.txt"));
    EXPECT_THAT(stored, HasSubstr("second.txt"));
    ForgetProtections();
}

TEST_F(UnderWine, TheLogIsFollowed)
{
    const auto outcome = WithDriver({"log follow --idle 1"});
    if (outcome.Output.find("STATUS_NOT_IMPLEMENTED") != std::string::npos)
    {
        GTEST_SKIP() << "this Wine does not reference objects by the handles of user-mode programs";
    }
    EXPECT_THAT(outcome.Output, HasSubstr("START_LOG"));
}

TEST_F(UnderWine, TheServiceStops)
{
    const auto outcome = prefix->Run({"sc start Tarnveil > nul", "sc stop Tarnveil > nul", "sc query Tarnveil"});
    if (outcome.Output.find("RUNNING") != std::string::npos)
    {
        GTEST_SKIP() << "this Wine does not unload a driver through the filter's own unload callback";
    }
    EXPECT_THAT(outcome.Prints, Contains("Tarnveil Unload STATUS_SUCCESS"));
}
}
