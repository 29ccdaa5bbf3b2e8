// The driver on volumes that are folders of the host: the programs' on one that is only read, the sandbox on another.
#include "hosted/fs/folder/folder_volume.h"
#include "hosted/io/posix_information.h"
#include "tests/scenario/cipher_scenario.h"
#include "tests/support/temporary_folder.h"

#include <cstring>

namespace cipher_test
{
namespace
{
constexpr WideView Plan = L"S:\\Sandbox\\plan.txt";

class FolderScenario : public testing::Test
{
protected:
    FolderScenario() : machine_(Options())
    {
        SystemRegistry().Reset();
        std::string value = Key + static_cast<char>(ScenarioMask);
        SystemRegistry().SetBinary(
            Machine::ServiceKey, L"SandboxCryptKey", {reinterpret_cast<const UCHAR*>(value.data()), value.size()});
        SystemRegistry().SetString(Machine::ServiceKey, L"SandboxPath", L"\\Device\\HarddiskVolume2\\Sandbox");
        EXPECT_EQ(machine_.MakeFolder(L"S:\\Sandbox"), STATUS_SUCCESS);
        EXPECT_EQ(machine_.LoadDriver(scenario_test::DriverUnderTest()), STATUS_SUCCESS);
        Agent.emplace(machine_.StartProcess(L"C:\\usr\\bin\\agent"));
        EXPECT_EQ(Agent->AddProcess(L"C:\\usr\\bin\\editor").Status, STATUS_SUCCESS);
        Editor.emplace(machine_.StartProcess(L"C:\\usr\\bin\\editor"));
        EXPECT_EQ(Agent->IsUnderSandbox(Editor->ProcessId()), Added(1));
    }

    MachineOptions Options()
    {
        std::filesystem::create_directories(programs_.Path("usr/bin"));
        std::filesystem::create_symlink("usr/bin", programs_.Path("bin"));
        for (const std::string name : {"agent", "editor"})
        {
            programs_.Put("usr/bin/" + name, name);
        }
        VolumeOptions programs;
        programs.Folder = programs_.Path();
        programs.ReadOnly = true;
        VolumeOptions store;
        store.DeviceName = L"\\Device\\HarddiskVolume2";
        store.DosName = L"S:";
        store.Folder = store_.Path();
        return {.Volumes = {programs, store}};
    }

    std::string Cipher(const std::string& plain) { return OnDisk(Key, ScenarioMask, plain); }

    const std::string Key = Pattern(16, 4711);
    const TemporaryFolder programs_;
    const TemporaryFolder store_;
    Machine machine_;
    std::optional<Program> Agent;
    std::optional<Program> Editor;
};

TEST_F(FolderScenario, LinuxSeesOnlyCipherText)
{
    const std::string plain = Pattern(10007);
    auto file = Editor->Create(Plan);
    ASSERT_EQ(file.Write(plain), STATUS_SUCCESS);
    ASSERT_EQ(file.Flush(), STATUS_SUCCESS);
    EXPECT_EQ(store_.Get("Sandbox/plan.txt"), Cipher(plain));
    EXPECT_EQ(Agent->Open(Plan).Status(), STATUS_ACCESS_DENIED);
    file.Close();
    machine_.Remount(L"S:");
    EXPECT_EQ(Editor->Open(Plan).ReadAll(), plain);
}

TEST_F(FolderScenario, EveryEndLeavesTextThatCanBeReadLater)
{
    const size_t ends[] = {0, 1, 15, 16, 17, 4095, 4096, 4097, 4112, 8191, 8193, 12301};
    const std::string full = Pattern(12301);
    for (size_t from : ends)
    {
        for (size_t to : ends)
        {
            {
                auto file = Editor->Create(Plan);
                file.Write(full.substr(0, from));
                ASSERT_EQ(file.Flush(), STATUS_SUCCESS);
                ASSERT_EQ(file.SetEndOfFile(static_cast<LONGLONG>(to)), STATUS_SUCCESS);
            }
            machine_.Remount(L"S:");
            std::string expected = full.substr(0, std::min(from, to));
            expected.resize(to);
            ASSERT_TRUE(Editor->Open(Plan).ReadAll() == expected) << from << " to " << to;
        }
    }
}

TEST_F(FolderScenario, AReplacedAndALinkedFileStayReadable)
{
    const std::string old = Pattern(5000, 1);
    const std::string fresh = Pattern(777, 2);
    auto replaced = Editor->Create(Plan);
    ASSERT_EQ(replaced.Write(old), STATUS_SUCCESS);
    auto file = Editor->Create(L"S:\\Sandbox\\new.tmp");
    ASSERT_EQ(file.Write(fresh), STATUS_SUCCESS);
    std::string record(FIELD_OFFSET(RenameEx, FileName) + 64, '\0');
    const WideString target = L"plan.txt";
    const ULONG flags = RenameEx::ReplaceIfExists | RenameEx::PosixSemantics;
    const auto bytes = static_cast<ULONG>(target.size() * sizeof(WCHAR));
    std::memcpy(record.data(), &flags, sizeof(flags));
    std::memcpy(record.data() + FIELD_OFFSET(RenameEx, FileNameLength), &bytes, sizeof(bytes));
    std::memcpy(record.data() + FIELD_OFFSET(RenameEx, FileName), target.data(), bytes);
    ASSERT_EQ(file.SetInformation(FileRenameInformationEx, record), STATUS_SUCCESS);
    EXPECT_EQ(replaced.Flush(), STATUS_SUCCESS);
    EXPECT_EQ(replaced.ReadAll(), old);
    file.Close();
    replaced.Close();
    machine_.Remount(L"S:");
    EXPECT_EQ(Editor->Open(Plan).ReadAll(), fresh);
    EXPECT_EQ(store_.Get("Sandbox/plan.txt"), Cipher(fresh));
    EXPECT_FALSE(machine_.DiskHas(L"S:\\Sandbox\\new.tmp"));
}

TEST_F(FolderScenario, ProgramsAreKnownByTheirFilesOnTheVolumeThatIsOnlyRead)
{
    EXPECT_EQ(Agent->Open(L"C:\\usr\\bin\\editor").Status(), STATUS_MEDIA_WRITE_PROTECTED);
    EXPECT_EQ(Agent->OpenForReading(L"C:\\bin\\editor").ReadAll(), "editor");
    EXPECT_EQ(Editor->Create(L"C:\\usr\\new").Status(), STATUS_MEDIA_WRITE_PROTECTED);
    // The name by which the first link leads there is another program's.
    auto aliased = machine_.StartProcess(L"C:\\bin\\editor");
    EXPECT_EQ(Agent->IsUnderSandbox(aliased.ProcessId()), Added(0));
}
}
}
