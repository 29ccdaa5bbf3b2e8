// Key, encryption, start and stop from the command line.
#include "tests/unit/agent/tarnctl_fixture.h"
#include "tests/support/temporary_folder.h"
#include "tests/unit/driver/filter/cipher_vectors.h"

namespace tarnctl_test
{
namespace
{
constexpr WideView Plan = L"C:\\Sandbox\\plan.txt";
const std::string KeyBytes = cipher_test::Pattern(32, 99);
constexpr UCHAR Mask = 0x5A;
const std::string WholeKey = KeyBytes + static_cast<char>(Mask);

std::string Hexadecimal(std::string_view bytes)
{
    std::string text;
    for (const char unit : bytes)
    {
        char digits[3];
        std::snprintf(digits, sizeof(digits), "%02x", static_cast<unsigned>(static_cast<unsigned char>(unit)));
        text += digits;
    }
    return text;
}

class TarnctlState : public TarnctlTest
{
protected:
    // What a sandboxed program's file looks like on the disk.
    std::string DiskAfterWriting(std::string_view plain)
    {
        EXPECT_EQ(program_.AddProcess(L"C:\\Apps\\Editor.exe").Status, STATUS_SUCCESS);
        const Program editor = machine_.StartProcess(L"C:\\Apps\\Editor.exe");
        auto file = editor.Create(Plan);
        EXPECT_EQ(file.Status(), STATUS_SUCCESS);
        file.Write(plain);
        file.Flush();
        file.Close();
        editor.Exit();
        return machine_.Disk(Plan);
    }

    TemporaryFolder folder_;
};

INSTANTIATE_TEST_SUITE_P(Ways, TarnctlState, AllWays, WayName);

TEST_P(TarnctlState, TheKeyFromAFileEnciphers)
{
    folder_.Put("key", WholeKey);
    EXPECT_EQ(Output({"key", "set", "--from-file", folder_.Path("key")}),
        "accepted; a key that was there before stays in force\n");
    EXPECT_EQ(
        DiskAfterWriting("attack at dawn, or later"), cipher_test::OnDisk(KeyBytes, Mask, "attack at dawn, or later"));
}

TEST_P(TarnctlState, AKeyFileMayHoldDigits)
{
    folder_.Put("key", Hexadecimal(WholeKey) + "\r\n");
    EXPECT_EQ(Output({"key", "set", "--from-file", folder_.Path("key"), "--json"}), "{\"accepted\":true}\n");
    EXPECT_EQ(DiskAfterWriting("plan"), cipher_test::OnDisk(KeyBytes, Mask, "plan"));
}

TEST_P(TarnctlState, AKeyOnTheCommandLineIsWarnedAboutAndNeverRepeated)
{
    const std::string digits = Hexadecimal(WholeKey);
    const Outcome outcome = Run({"key", "set", "--hex", digits});
    EXPECT_EQ(outcome.Exit, 0);
    EXPECT_THAT(outcome.Error, AllOf(StartsWith("tarnctl: warning: "), HasSubstr("--from-file")));
    EXPECT_THAT(outcome.Output + outcome.Error, Not(HasSubstr(digits.substr(0, 8))));
    EXPECT_EQ(DiskAfterWriting("plan"), cipher_test::OnDisk(KeyBytes, Mask, "plan"));
}

TEST_P(TarnctlState, ASecondKeyChangesNothing)
{
    ASSERT_EQ(program_.SetCryptKey(KeyBytes, Mask), STATUS_SUCCESS);
    folder_.Put("other", std::string(17, 'o'));
    Output({"key", "set", "--from-file", folder_.Path("other")});
    EXPECT_EQ(DiskAfterWriting("plan"), cipher_test::OnDisk(KeyBytes, Mask, "plan"));
}

TEST_P(TarnctlState, EncryptionGoesOffAndOn)
{
    ASSERT_EQ(program_.SetCryptKey(KeyBytes, Mask), STATUS_SUCCESS);
    EXPECT_EQ(Output({"encryption", "off"}), "encryption is off\n");
    EXPECT_EQ(DiskAfterWriting("plan"), "plan");
    EXPECT_EQ(Output({"encryption", "on", "--json"}), "{\"encryption\":true}\n");
    EXPECT_EQ(DiskAfterWriting("plan"), cipher_test::OnDisk(KeyBytes, Mask, "plan"));
}

TEST_P(TarnctlState, StopRemovesSettings)
{
    EXPECT_EQ(Output({"start"}), "started\n");
    EXPECT_EQ(Output({"start", "--json"}), "{\"started\":true}\n");
    ASSERT_EQ(program_.AddProcess(L"C:\\Apps\\Editor.exe").Status, STATUS_SUCCESS);
    const Program editor = machine_.StartProcess(L"C:\\Apps\\Editor.exe");
    EXPECT_EQ(program_.IsExistUnderSandbox().Value, 1u);
    EXPECT_EQ(Output({"stop"}), "stopped\n");
    EXPECT_EQ(program_.IsExistUnderSandbox().Value, 0u);
    EXPECT_EQ(Output({"stop", "--json"}), "{\"started\":false}\n");
}
}
}
