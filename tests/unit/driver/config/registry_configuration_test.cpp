// What the driver takes from its service key, and where it stops reading.

#include "driver/core/global_state.h"
#include "hosted/ke/failure_injection.h"
#include "hosted/rtl/debug_print.h"
#include "tests/support/machine.h"

#include <gmock/gmock.h>

#include <numeric>

extern "C" NTSTATUS NTAPI DriverEntry(PDRIVER_OBJECT driverObject, PUNICODE_STRING registryPath);

namespace
{
using namespace hosted;
using testing::ElementsAre;
using testing::ElementsAreArray;

constexpr WideView Folder = L"\\Device\\HarddiskVolume1\\Sandbox";

class RegistryConfiguration : public testing::Test
{
protected:
    void SetCryptKey(size_t bytes)
    {
        Stored.resize(bytes);
        std::iota(Stored.begin(), Stored.end(), static_cast<UCHAR>(1));
        Computer.Registry().SetBinary(Machine::ServiceKey, L"SandboxCryptKey", Stored);
    }
    void SetFolder(WideView path, ULONG type = REG_SZ)
    {
        Computer.Registry().SetString(Machine::ServiceKey, L"SandboxPath", path, type);
    }
    // The texts printed by the reading alone.
    std::vector<std::string> Load()
    {
        EXPECT_EQ(Computer.LoadDriver(DriverEntry), STATUS_SUCCESS);
        std::vector<std::string> reading;
        for (const std::string& text : DebugPrints())
        {
            if (text.starts_with("Sandbox") || text.starts_with("Prefix") || text.starts_with("KeyLength"))
            {
                reading.push_back(text);
            }
        }
        return reading;
    }
    void ExpectNoFolder()
    {
        EXPECT_EQ(Global.SandboxPath.Buffer, nullptr);
        EXPECT_EQ(Global.SandboxPath.Length, 0);
        EXPECT_EQ(Global.PrefixSandboxPath.Buffer, nullptr);
        EXPECT_EQ(Global.PrefixSandboxPath.Length, 0);
    }
    void ExpectFolder(const std::string& path)
    {
        EXPECT_EQ(Narrow(View(Global.SandboxPath)), path);
        EXPECT_EQ(Narrow(View(Global.PrefixSandboxPath)), path + "\\");
        EXPECT_EQ(Global.SandboxPath.MaximumLength, Global.SandboxPath.Length + 4);
        EXPECT_EQ(Global.PrefixSandboxPath.Length, Global.SandboxPath.Length + 2);
        EXPECT_EQ(Global.PrefixSandboxPath.MaximumLength, Global.PrefixSandboxPath.Length + 4);
        const size_t end = Global.SandboxPath.Length / sizeof(WCHAR);
        EXPECT_EQ(Global.SandboxPath.Buffer[end], 0);
        EXPECT_EQ(Global.SandboxPath.Buffer[end + 1], 0);
    }
    void ExpectKey(size_t bytes, UCHAR mask)
    {
        EXPECT_EQ(Global.KeyLength, bytes);
        EXPECT_EQ(Global.XorByte, mask);
        std::vector<UCHAR> expected(MaximumKeyBytes);
        std::copy_n(Stored.begin(), bytes, expected.begin());
        EXPECT_THAT(Global.CryptKey, ElementsAreArray(expected));
    }
    void ExpectNoKeyBytes()
    {
        EXPECT_THAT(Global.CryptKey, testing::Each(0));
        EXPECT_EQ(Global.XorByte, 0);
    }

    std::vector<std::string> FolderPrints() const
    {
        return {"SandboxPath \\Device\\HarddiskVolume1\\Sandbox\n",
            "PrefixSandboxPath \\Device\\HarddiskVolume1\\Sandbox\\\n"};
    }

    Machine Computer;
    std::vector<UCHAR> Stored;
};

TEST_F(RegistryConfiguration, WithoutKeyValueTheFolderIsStillRead)
{
    SetFolder(Folder);
    EXPECT_THAT(Load(), ElementsAre("SandboxCryptKey Query c0000034\n", FolderPrints()[0], FolderPrints()[1]));
    EXPECT_EQ(Global.KeyLength, 0u);
    ExpectNoKeyBytes();
    ExpectFolder("\\Device\\HarddiskVolume1\\Sandbox");
    EXPECT_EQ(Narrow(View(Global.RegistryPath)), Narrow(Machine::ServiceKey));
    EXPECT_EQ(Global.RegistryPath.MaximumLength, Global.RegistryPath.Length);
}

TEST_F(RegistryConfiguration, Key128TakesItsLastByteAsMask)
{
    SetCryptKey(17);
    SetFolder(Folder);
    EXPECT_THAT(Load(), ElementsAre("SandboxCryptKey Query 80000005\n", FolderPrints()[0], FolderPrints()[1]));
    ExpectKey(16, 17);
}

TEST_F(RegistryConfiguration, Key256TakesItsLastByteAsMask)
{
    SetCryptKey(33);
    Load();
    ExpectKey(32, 33);
    ExpectNoFolder();
}

TEST_F(RegistryConfiguration, Key192TakesTheByteBehindItsValueAsMask)
{
    SetCryptKey(25);
    SetFolder(Folder);
    Load();
    ExpectKey(24, 0);
    ExpectFolder("\\Device\\HarddiskVolume1\\Sandbox");
}

TEST_F(RegistryConfiguration, KeyValueThatFitsTheProbeStopsAllReading)
{
    for (size_t bytes : {0u, 1u, 8u})
    {
        SCOPED_TRACE(bytes);
        SetCryptKey(bytes);
        SetFolder(Folder);
        EXPECT_THAT(Load(), ElementsAre("SandboxCryptKey Query 0\n"));
        EXPECT_EQ(Global.KeyLength, 0u);
        ExpectNoFolder();
        EXPECT_EQ(Computer.UnloadDriver(), STATUS_SUCCESS);
        Computer.ClearDebugPrints();
    }
}

TEST_F(RegistryConfiguration, KeyOfAnotherLengthIsRememberedAndStopsTheReading)
{
    for (size_t bytes : {9u, 16u, 18u, 20u, 24u, 26u, 32u, 34u, 41u})
    {
        SCOPED_TRACE(bytes);
        SetCryptKey(bytes);
        SetFolder(Folder);
        EXPECT_THAT(Load(),
            ElementsAre("SandboxCryptKey Query 80000005\n", "KeyLength fail " + std::to_string(bytes - 1) + "\n"));
        EXPECT_EQ(Global.KeyLength, bytes - 1);
        ExpectNoKeyBytes();
        ExpectNoFolder();
        EXPECT_EQ(Computer.UnloadDriver(), STATUS_SUCCESS);
        Computer.ClearDebugPrints();
    }
}

TEST_F(RegistryConfiguration, KeyOfAnotherLengthCannotBeReplacedByARequest)
{
    SetCryptKey(20);
    Load();
    Program agent = Computer.StartProcess(L"C:\\Agent.exe");
    EXPECT_EQ(agent.SetCryptKey("0123456789abcdef", 0x5a), STATUS_SUCCESS);
    EXPECT_EQ(Global.KeyLength, 19u);
    ExpectNoKeyBytes();
}

TEST_F(RegistryConfiguration, TypesAreNotLookedAt)
{
    Stored.assign(17, 9);
    Computer.Registry().SetValue(Machine::ServiceKey, L"SandboxCryptKey", REG_SZ, Stored);
    SetFolder(Folder, REG_BINARY);
    Load();
    ExpectKey(16, 9);
    ExpectFolder("\\Device\\HarddiskVolume1\\Sandbox");
}

TEST_F(RegistryConfiguration, FolderEndingInABackslashGetsASecondOneInThePrefix)
{
    SetFolder(L"\\Device\\V\\Box\\");
    EXPECT_THAT(Load(), ElementsAre("SandboxCryptKey Query c0000034\n", "SandboxPath \\Device\\V\\Box\\\n",
                            "PrefixSandboxPath \\Device\\V\\Box\\\\\n"));
    ExpectFolder("\\Device\\V\\Box\\");
}

TEST_F(RegistryConfiguration, FolderThatFitsTheProbeIsNotRead)
{
    // Three characters and the terminator are 8 bytes.
    SetFolder(L"\\ab");
    EXPECT_THAT(Load(), ElementsAre("SandboxCryptKey Query c0000034\n"));
    ExpectNoFolder();
}

TEST_F(RegistryConfiguration, ShortestFolderThatIsReadHasFourCharacters)
{
    SetFolder(L"\\abc");
    EXPECT_THAT(
        Load(), ElementsAre("SandboxCryptKey Query c0000034\n", "SandboxPath \\abc\n", "PrefixSandboxPath \\abc\\\n"));
    ExpectFolder("\\abc");
}

TEST_F(RegistryConfiguration, FolderEndsAtItsFirstNul)
{
    SetFolder(WideView(L"\\Device\\V\\Box\0behind", 20));
    Load();
    ExpectFolder("\\Device\\V\\Box");
}

TEST_F(RegistryConfiguration, FolderWithoutTerminatorEndsWithItsData)
{
    const WideView text = L"\\Device\\V\\Box";
    const auto bytes = reinterpret_cast<const UCHAR*>(text.data());
    Computer.Registry().SetBinary(Machine::ServiceKey, L"SandboxPath", {bytes, text.size() * sizeof(WCHAR)});
    Load();
    ExpectFolder("\\Device\\V\\Box");
}

TEST_F(RegistryConfiguration, FolderThatIsEmptyTextGivesABareBackslash)
{
    const std::vector<UCHAR> zeros(10);
    Computer.Registry().SetBinary(Machine::ServiceKey, L"SandboxPath", zeros);
    EXPECT_THAT(Load(), ElementsAre("SandboxCryptKey Query c0000034\n", "SandboxPath \n", "PrefixSandboxPath \\\n"));
    ExpectFolder("");
}

TEST_F(RegistryConfiguration, MissingServiceKeyIsSilent)
{
    EXPECT_EQ(Computer.LoadDriver(DriverEntry, L"\\Registry\\Machine\\System\\None"), STATUS_SUCCESS);
    EXPECT_THAT(DebugPrints(),
        ElementsAre("Tarnveil Driver Entry \\Registry\\Machine\\System\\None\n", "Tarnveil.sys: ",
            "Failed to ZwOpenKey. Path = \\Registry\\Machine\\SOFTWARE\\WOW6432Node\\"
            "Orvane Works\\Hollowbay NTStatus = c0000034\n",
            "Tarnveil - OS Version: 0x06010000\n", "Create NT Device \\Device\\Tarnveil\n",
            "Tarnveil - IoCreateSymbolicLink success \\DosDevices\\Tarnveil\n", "Tarnveil DriverEntry return 0\n"));
    EXPECT_EQ(Narrow(View(Global.RegistryPath)), "\\Registry\\Machine\\System\\None");
    ExpectNoFolder();
}

TEST_F(RegistryConfiguration, FailedOpenReadsNothing)
{
    SetCryptKey(17);
    SetFolder(Folder);
    // The product's key is opened before.
    FailRoutine("ZwOpenKey", 2);
    EXPECT_THAT(Load(), ElementsAre());
    ResetFailures();
    EXPECT_EQ(Global.KeyLength, 0u);
    ExpectNoFolder();
}

// Queries in order: key probe, key, folder probe, folder.
TEST_F(RegistryConfiguration, FailedQueryStopsTheReadingThere)
{
    SetCryptKey(17);
    SetFolder(Folder);
    for (uint64_t number : {1, 2, 3, 4})
    {
        SCOPED_TRACE(number);
        FailRoutine("ZwQueryValueKey", number);
        EXPECT_EQ(Load().size(), 1u);
        EXPECT_EQ(InjectedFailures(), 1u);
        ResetFailures();
        EXPECT_EQ(Global.KeyLength, number <= 2 ? 0u : 16u);
        ExpectNoFolder();
        EXPECT_EQ(Computer.UnloadDriver(), STATUS_SUCCESS);
        Computer.ClearDebugPrints();
    }
}

// Allocations in order: registry path, key record, folder record, folder.
TEST_F(RegistryConfiguration, FailedAllocationStopsTheReadingThere)
{
    SetCryptKey(17);
    SetFolder(Folder);
    for (uint64_t number : {1, 2, 3, 4})
    {
        SCOPED_TRACE(number);
        FailRoutine("ExAllocatePoolWithTag", number);
        const std::vector<std::string> prints = Load();
        EXPECT_EQ(InjectedFailures(), 1u);
        ResetFailures();
        EXPECT_EQ(prints.size(), number == 1 ? 0u : 1u);
        EXPECT_EQ(Global.RegistryPath.Buffer == nullptr, number == 1);
        EXPECT_EQ(Global.KeyLength, number <= 2 ? 0u : 16u);
        ExpectNoFolder();
        EXPECT_EQ(Computer.UnloadDriver(), STATUS_SUCCESS);
        Computer.ClearDebugPrints();
    }
}

// Between the folder and its prefix the product-mode list is built, whose failures stop nothing.
TEST_F(RegistryConfiguration, FailedAllocationOfThePrefixStopsTheReadingThere)
{
    SetFolder(Folder);
    const std::string protectionText = "Tarnveil - ZwQueryValueKey ValueName = ProtectionFiles NTStatus = c0000034\n";
    size_t stops = 0;
    bool failed = true;
    for (uint64_t number = 4; failed; ++number)
    {
        SCOPED_TRACE(number);
        FailRoutine("ExAllocatePoolWithTag", number);
        const std::vector<std::string> prints = Load();
        failed = InjectedFailures() != 0;
        ResetFailures();
        EXPECT_EQ(Narrow(View(Global.SandboxPath)), Narrow(Folder));
        const bool stopped = Global.PrefixSandboxPath.Buffer == nullptr;
        stops += stopped ? 1 : 0;
        EXPECT_EQ(prints.size(), stopped ? 2u : 3u);
        EXPECT_EQ(std::ranges::count(DebugPrints(), protectionText), stopped ? 0 : 1);
        EXPECT_EQ(Computer.UnloadDriver(), STATUS_SUCCESS);
        Computer.ClearDebugPrints();
    }
    EXPECT_EQ(stops, 1u);
}

TEST_F(RegistryConfiguration, NothingSurvivesIntoTheNextLoad)
{
    SetCryptKey(33);
    SetFolder(Folder);
    Load();
    EXPECT_EQ(Computer.UnloadDriver(), STATUS_SUCCESS);
    EXPECT_EQ(Global.SandboxPath.Buffer, nullptr);
    EXPECT_EQ(Global.PrefixSandboxPath.Buffer, nullptr);
    EXPECT_EQ(Global.RegistryPath.Buffer, nullptr);
    Computer.Registry().DeleteValue(Machine::ServiceKey, L"SandboxCryptKey");
    Computer.Registry().DeleteValue(Machine::ServiceKey, L"SandboxPath");
    Load();
    EXPECT_EQ(Global.KeyLength, 0u);
    ExpectNoKeyBytes();
    ExpectNoFolder();
}
}
