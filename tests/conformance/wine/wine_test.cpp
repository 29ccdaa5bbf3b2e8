// The shipping image as a service of an independent implementation of the Windows kernel's interfaces, driven by the
// agent for Windows. What Wine does not carry is skipped by name.

#include "tests/conformance/wine/wine_session.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <optional>

namespace
{
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

class UnderWine : public testing::Test
{
protected:
    static void SetUpTestSuite()
    {
        prefix.emplace(TARNVEIL_IMAGE, TARNVEIL_AGENT);
        created = prefix->Run({"sc create Tarnveil binPath= C:\\Tarnveil.sys type= filesys start= demand"});
    }
    static void TearDownTestSuite() { prefix.reset(); }

    // A system with the service started, in which the agent gets these command lines; each is followed by its exit code.
    static wine::Prefix::Outcome WithDriver(const std::vector<std::string>& commands)
    {
        std::vector<std::string> lines = {"sc start Tarnveil > nul"};
        for (const std::string& command : commands)
        {
            lines.push_back("C:\\tarnctl.exe " + command);
            lines.push_back("echo code=%ERRORLEVEL%");
        }
        return prefix->Run(lines);
    }
    static std::string Registry(const std::string& value)
    {
        return prefix->Run({"reg query HKLM\\System\\CurrentControlSet\\Services\\Tarnveil /v " + value}).Output;
    }

    static std::optional<wine::Prefix> prefix;
    static wine::Prefix::Outcome created;
};

std::optional<wine::Prefix> UnderWine::prefix;
wine::Prefix::Outcome UnderWine::created;

// Wine's DbgPrint does not know counted strings and prints the conversion's last letter, so only what stands in front of
// them is compared.
TEST_F(UnderWine, TheLoadPrintsItsSteps)
{
    const auto outcome = WithDriver({"status"});
    EXPECT_THAT(outcome.Output, HasSubstr("driver: reachable\n"));
    ASSERT_GE(outcome.Prints.size(), 8u) << outcome.Output;
    const std::vector<std::string> load(outcome.Prints.begin(), outcome.Prints.begin() + 8);
    EXPECT_THAT(load, ElementsAre(StartsWith("Tarnveil Driver Entry "), "Tarnveil.sys: ",
                                  StartsWith("Failed to ZwOpenKey. Path = "), StartsWith("Tarnveil - OS Version: 0x"),
                                  "SandboxCryptKey Query c0000034", StartsWith("Create NT Device "),
                                  StartsWith("Tarnveil - IoCreateSymbolicLink success "),
                                  "Tarnveil DriverEntry return 0"));
}

TEST_F(UnderWine, EveryCommandIsAnswered)
{
    const auto outcome = WithDriver({"process add C:\\Apps\\Editor.exe", "parent add C:\\Apps\\Shell.exe",
                                     "exclude add C:\\Apps\\Never.exe", "start", "encryption off", "encryption on",
                                     "protect add 100 C:\\Data\\secret.txt", "protect remove 3", "process remove 0",
                                     "stop", "dump"});
    size_t codes = 0;
    for (size_t at = outcome.Output.find("code=0\n"); at != std::string::npos;
         at = outcome.Output.find("code=0\n", at + 1))
    {
        ++codes;
    }
    EXPECT_EQ(codes, 11u) << outcome.Output;
    EXPECT_THAT(outcome.Output, Not(HasSubstr("refused")));
}

TEST_F(UnderWine, AKeyOfTheRegistryCannotBeOverridden)
{
    prefix->Run({"reg add HKLM\\System\\CurrentControlSet\\Services\\Tarnveil /v SandboxCryptKey /t REG_BINARY /d "
                 "000102030405060708090a0b0c0d0e0f5c /f"});
    const auto outcome = WithDriver({"key set --hex 000102030405060708090a0b0c0d0e0f5c"});
    EXPECT_THAT(outcome.Prints, testing::Contains("SandboxCryptKey Query 80000005"));
    EXPECT_THAT(outcome.Prints, testing::Contains("Tarnveil - Tried to override the crypt key."));
    EXPECT_THAT(outcome.Output, HasSubstr("code=0\n"));
    prefix->Run({"reg delete HKLM\\System\\CurrentControlSet\\Services\\Tarnveil /v SandboxCryptKey /f"});
}

TEST_F(UnderWine, ProtectedPathsAreKeptInTheRegistryAndReadBack)
{
    prefix->Run({"reg add HKLM\\System\\CurrentControlSet\\Services\\Tarnveil /v SandboxPath /t REG_SZ /d "
                 "\\Device\\HarddiskVolume1\\Sandbox /f"});
    WithDriver({"protect add 100 C:\\first.txt"});
    EXPECT_THAT(Registry("ProtectionFiles"), HasSubstr("first.txt"));
    // Written anew with what the load read back.
    WithDriver({"protect add 100 C:\\second.txt"});
    const std::string stored = Registry("ProtectionFiles");
    EXPECT_THAT(stored, HasSubstr("first.txt"));
    EXPECT_THAT(stored, HasSubstr("second.txt"));
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
    EXPECT_THAT(outcome.Prints, testing::Contains("Tarnveil Unload STATUS_SUCCESS"));
}
}
