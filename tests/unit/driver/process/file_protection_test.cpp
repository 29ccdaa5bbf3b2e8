// Protections through the requests and through the list's own operations: answers, records, traces, what is stored.

#include "driver/process/file_protection.h"

#include "driver/util/debug_print.h"
#include "tests/support/machine.h"
#include "tests/unit/driver/process/agent_fixture.h"

namespace agent_test
{
namespace
{
constexpr WideView Secret = L"C:\\Data\\secret.txt";
constexpr char SecretNt[] = "\\Device\\HarddiskVolume1\\Data\\secret.txt";
constexpr WideView SecretNtWide = L"\\Device\\HarddiskVolume1\\Data\\secret.txt";

class FileProtectionList : public AgentTest
{
protected:
    // What the driver stored; nothing when there is no value.
    std::optional<std::vector<std::string>> Stored()
    {
        const auto value = machine_.Registry().GetValue(Machine::ServiceKey, L"ProtectionFiles");
        if (!value)
        {
            return std::nullopt;
        }
        EXPECT_EQ(value->Type, static_cast<ULONG>(REG_MULTI_SZ));
        WideString text(value->Bytes.size() / sizeof(WCHAR), 0);
        __builtin_memcpy(text.data(), value->Bytes.data(), text.size() * sizeof(WCHAR));
        std::vector<std::string> strings;
        size_t start = 0;
        for (size_t i = 0; i < text.size(); ++i)
        {
            if (text[i] == 0)
            {
                strings.push_back(Narrow(WideView(text).substr(start, i - start)));
                start = i + 1;
            }
        }
        EXPECT_EQ(start, text.size());
        EXPECT_FALSE(strings.empty());
        EXPECT_EQ(strings.back(), "");
        strings.pop_back();
        return strings;
    }
    static FileProtection* Find(WideView path)
    {
        const UNICODE_STRING name = Counted(path);
        FileProtection* found = nullptr;
        return NT_SUCCESS(FindFileProtection(&name, &found)) ? found : nullptr;
    }
    static NTSTATUS Add(WideView path)
    {
        const UNICODE_STRING name = Counted(path);
        return AddNewFileProtection(&name);
    }
    struct Verdict
    {
        bool Protected;
        bool Denied;
        bool operator==(const Verdict&) const = default;
    };
    static Verdict Check(ULONG processId, WideView path)
    {
        const UNICODE_STRING name = Counted(path);
        BOOLEAN isProtected = 7;
        BOOLEAN isDenied = 7;
        EXPECT_EQ(CheckFileProtection(ProcessIdHandle(processId), &name, &isProtected, &isDenied), STATUS_SUCCESS);
        return {isProtected != FALSE, isDenied != FALSE};
    }
    static constexpr Verdict Open = {false, false};
    static constexpr Verdict Allowed = {true, false};
    static constexpr Verdict Refused = {true, true};

    std::vector<std::string> AllPaths()
    {
        std::vector<std::string> paths;
        FileProtection* protection = nullptr;
        for (ULONG i = 0; NT_SUCCESS(GetFileProtectionAt(i, &protection)); ++i)
        {
            paths.push_back(Narrow(View(protection->Path)));
        }
        return paths;
    }
};

TEST_F(FileProtectionList, ANewPathIsProtectedStoredAndReported)
{
    Listen();
    EXPECT_THAT(PrintsOf([&] { EXPECT_EQ(agent_.AddFileProtection(100, Secret), Added(Id(0))); }),
        ElementsAre("Tarnveil.sys: ", Text("[IDMan] IssueId = %u\n", Id(0)),
            Text("Tarnveil - IOCTL_ADD_FILE_PROTECTION: pid =  100 path = 'C:\\Data\\secret.txt', id(%u)\n", Id(0))));
    EXPECT_THAT(Messages(),
        ElementsAre(Text(
            "IRP = DEV_CTRL IOCTL = ADD_PROTECT status = ADDED_SETTING id = %u pid = 100 path = %s", Id(0), SecretNt)));
    EXPECT_THAT(*Stored(), ElementsAre(SecretNt));
    EXPECT_EQ(Check(100, SecretNtWide), Allowed);
    EXPECT_EQ(Check(104, SecretNtWide), Refused);
    EXPECT_EQ(Check(104, L"\\Device\\HarddiskVolume1\\Data\\other.txt"), Open);
}

TEST_F(FileProtectionList, TheSameProcessAgainGetsTheSameId)
{
    EXPECT_EQ(agent_.AddFileProtection(100, Secret), Added(Id(0)));
    machine_.Registry().DeleteValue(Machine::ServiceKey, L"ProtectionFiles");
    Listen();
    EXPECT_THAT(PrintsOf([&] { EXPECT_EQ(agent_.AddFileProtection(100, L"c:\\DATA\\Secret.TXT"), Added(Id(0))); }),
        ElementsAre(
            Text("Tarnveil - IOCTL_ADD_FILE_PROTECTION: pid =  100 path = 'c:\\DATA\\Secret.TXT', id(%u)\n", Id(0))));
    EXPECT_THAT(Messages(),
        ElementsAre(Text("IRP = DEV_CTRL IOCTL = ADD_PROTECT status = SETTING_EXISTS id = %u pid = 100 path = "
                         "c:\\DATA\\Secret.TXT",
            Id(0))));
    EXPECT_FALSE(Stored().has_value());
}

TEST_F(FileProtectionList, AnotherProcessGetsItsOwnIdAndNothingIsStoredAnew)
{
    EXPECT_EQ(agent_.AddFileProtection(100, Secret), Added(Id(0)));
    machine_.Registry().DeleteValue(Machine::ServiceKey, L"ProtectionFiles");
    Listen();
    EXPECT_EQ(agent_.AddFileProtection(200, Secret), Added(Id(1)));
    EXPECT_THAT(Messages(),
        ElementsAre(Text(
            "IRP = DEV_CTRL IOCTL = ADD_PROTECT status = ADDED_SETTING id = %u pid = 200 path = %s", Id(1), SecretNt)));
    EXPECT_FALSE(Stored().has_value());
    EXPECT_EQ(Check(100, SecretNtWide), Allowed);
    EXPECT_EQ(Check(200, SecretNtWide), Allowed);
    EXPECT_EQ(Check(300, SecretNtWide), Refused);
    EXPECT_THAT(AllPaths(), ElementsAre(SecretNt));
}

TEST_F(FileProtectionList, EveryPathIsStoredInOrder)
{
    EXPECT_EQ(agent_.AddFileProtection(100, Secret), Added(Id(0)));
    EXPECT_EQ(agent_.AddFileProtection(100, L"C:\\a"), Added(Id(1)));
    EXPECT_EQ(agent_.AddFileProtection(100, L"C:\\Data\\*.doc"), Added(Id(2)));
    EXPECT_THAT(
        *Stored(), ElementsAre(SecretNt, "\\Device\\HarddiskVolume1\\a", "\\Device\\HarddiskVolume1\\Data\\*.doc"));
}

// 20 and 30 characters.
TEST_F(FileProtectionList, StoredBytesAreThoseOfThePathsAndTheirTerminators)
{
    ASSERT_EQ(Add(L"\\Device\\HarddiskVol\\"), STATUS_SUCCESS);
    ASSERT_EQ(Add(L"\\Device\\HarddiskVolume1\\abcdef"), STATUS_SUCCESS);
    EXPECT_THAT(PrintsOf([] { EXPECT_EQ(SaveProtectionFiles(), STATUS_SUCCESS); }), IsEmpty());
    const auto value = machine_.Registry().GetValue(Machine::ServiceKey, L"ProtectionFiles");
    ASSERT_TRUE(value.has_value());
    EXPECT_EQ(value->Bytes.size(), 106u);
    EXPECT_THAT(*Stored(), ElementsAre("\\Device\\HarddiskVol\\", "\\Device\\HarddiskVolume1\\abcdef"));
}

TEST_F(FileProtectionList, APatternCoversWhatItMatches)
{
    ASSERT_EQ(Add(L"\\Device\\HarddiskVolume2\\Data\\*.txt"), STATUS_SUCCESS);
    EXPECT_EQ(Check(100, L"\\Device\\HarddiskVolume2\\Data\\a.txt"), Refused);
    EXPECT_EQ(Check(100, L"\\DEVICE\\harddiskvolume2\\data\\sub\\b.TXT"), Refused);
    EXPECT_EQ(Check(100, L"\\Device\\HarddiskVolume2\\Data\\a.txt.bak"), Open);
    EXPECT_EQ(Check(100, L"\\Device\\HarddiskVolume2\\a.txt"), Open);
    // Looked up, a path is itself and no pattern.
    EXPECT_EQ(Find(L"\\Device\\HarddiskVolume2\\Data\\a.txt"), nullptr);
    EXPECT_NE(Find(L"\\device\\harddiskvolume2\\data\\*.TXT"), nullptr);
}

TEST_F(FileProtectionList, AQuestionMarkStandsForOneCharacter)
{
    ASSERT_EQ(Add(L"\\Device\\V\\?.txt"), STATUS_SUCCESS);
    EXPECT_EQ(Check(100, L"\\Device\\V\\a.txt"), Refused);
    EXPECT_EQ(Check(100, L"\\Device\\V\\ab.txt"), Open);
    EXPECT_EQ(Check(100, L"\\Device\\V\\.txt"), Open);
}

TEST_F(FileProtectionList, AnyCoveringPatternThatAllowsTheProcessIsEnough)
{
    EXPECT_EQ(agent_.AddFileProtection(100, L"C:\\Data\\*"), Added(Id(0)));
    EXPECT_EQ(agent_.AddFileProtection(200, Secret), Added(Id(1)));
    EXPECT_EQ(agent_.AddFileProtection(300, L"C:\\*.txt"), Added(Id(2)));
    for (const ULONG process : {100u, 200u, 300u})
    {
        EXPECT_EQ(Check(process, SecretNtWide), Allowed) << process;
    }
    EXPECT_EQ(Check(400, SecretNtWide), Refused);
    EXPECT_EQ(Check(200, L"\\Device\\HarddiskVolume1\\Data\\other.txt"), Refused);
    EXPECT_EQ(Check(300, L"\\Device\\HarddiskVolume1\\Data\\other.bin"), Refused);
    EXPECT_EQ(Check(300, L"\\Device\\HarddiskVolume1\\other.bin"), Open);
}

TEST_F(FileProtectionList, CheckNeedsBothOutputs)
{
    const UNICODE_STRING name = Counted(SecretNtWide);
    BOOLEAN answer = 7;
    EXPECT_EQ(CheckFileProtection(nullptr, &name, nullptr, &answer), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(CheckFileProtection(nullptr, &name, &answer, nullptr), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(answer, 7);
}

TEST_F(FileProtectionList, DeletingAnIdTakesThatOneProcessOut)
{
    EXPECT_EQ(agent_.AddFileProtection(100, Secret), Added(Id(0)));
    EXPECT_EQ(agent_.AddFileProtection(200, Secret), Added(Id(1)));
    EXPECT_EQ(agent_.AddFileProtection(100, L"C:\\other"), Added(Id(2)));
    Listen();
    EXPECT_THAT(PrintsOf([&] { EXPECT_EQ(agent_.DelFileProtection(Id(0)), STATUS_SUCCESS); }),
        ElementsAre(Text("Tarnveil - IOCTL_DEL_FILE_PROTECTION: id(%u)\n", Id(0)),
            "Tarnveil.sys: ", Text("[IDMan] ReleaseId = %u\n", Id(0))));
    EXPECT_THAT(Messages(),
        ElementsAre(Text("IRP = DEV_CTRL IOCTL = DEL_PROTECT status = DELETED_SETTING id = %u pid = 100 path = %s",
            Id(0), SecretNt)));
    EXPECT_EQ(Check(100, SecretNtWide), Refused);
    EXPECT_EQ(Check(200, SecretNtWide), Allowed);
    EXPECT_EQ(Check(100, L"\\Device\\HarddiskVolume1\\other"), Allowed);
    // The path stays, in the list and in the registry.
    EXPECT_THAT(*Stored(), ElementsAre(SecretNt, "\\Device\\HarddiskVolume1\\other"));
    // The number is used again.
    EXPECT_EQ(agent_.AddFileProtection(500, Secret), Added(Id(0)));
}

TEST_F(FileProtectionList, DeletingAnIdThatNobodyCarriesChangesNothing)
{
    EXPECT_EQ(agent_.AddFileProtection(100, Secret), Added(Id(0)));
    const ULONG other = agent_.AddExclusion(L"C:\\a.exe").Value;
    Listen();
    for (const ULONG id : {Id(7), other, 0xffffffffu})
    {
        EXPECT_THAT(PrintsOf([&] { EXPECT_EQ(agent_.DelFileProtection(id), STATUS_SUCCESS); }),
            ElementsAre(Text("Tarnveil - IOCTL_DEL_FILE_PROTECTION: id(%d)\n", static_cast<int>(id))));
    }
    // Nor does this list answer to the other deleting request.
    EXPECT_EQ(agent_.DelProcess(Id(0)), STATUS_SUCCESS);
    EXPECT_THAT(Messages(), IsEmpty());
    EXPECT_EQ(Check(100, SecretNtWide), Allowed);
}

TEST_F(FileProtectionList, ProcessExitTakesAllItsAllowancesAndLeavesThePaths)
{
    const Program reader = machine_.StartProcess(L"C:\\Apps\\Reader.exe");
    const ULONG pid = reader.ProcessId();
    EXPECT_EQ(agent_.AddFileProtection(pid, Secret), Added(Id(0)));
    EXPECT_EQ(agent_.AddFileProtection(pid, L"C:\\other"), Added(Id(1)));
    EXPECT_EQ(agent_.AddFileProtection(agent_.ProcessId(), L"C:\\other"), Added(Id(2)));
    Listen();
    EXPECT_THAT(PrintsOf([&] { reader.Exit(); }), ElementsAre("Tarnveil.sys: ", Text("[IDMan] ReleaseId = %u\n", Id(0)),
                                                      "Tarnveil.sys: ", Text("[IDMan] ReleaseId = %u\n", Id(1))));
    EXPECT_THAT(Messages(),
        ElementsAre(Text("PROC = EXITS status = DELETED_SETTING id = %u pid = %u path = %s", Id(0), pid, SecretNt),
            Text("PROC = EXITS status = DELETED_SETTING id = %u pid = %u path = \\Device\\HarddiskVolume1\\other",
                Id(1), pid)));
    EXPECT_EQ(Check(pid, SecretNtWide), Refused);
    EXPECT_EQ(Check(agent_.ProcessId(), L"\\Device\\HarddiskVolume1\\other"), Allowed);
    EXPECT_THAT(*Stored(), ElementsAre(SecretNt, "\\Device\\HarddiskVolume1\\other"));
}

TEST_F(FileProtectionList, StopLeavesAllProtectionsInPlace)
{
    EXPECT_EQ(agent_.AddFileProtection(100, Secret), Added(Id(0)));
    Listen();
    EXPECT_THAT(
        PrintsOf([&] { EXPECT_EQ(agent_.StopDriver(), STATUS_SUCCESS); }), ElementsAre("Tarnveil - IOCTL_STOP\n"));
    EXPECT_THAT(Messages(), IsEmpty());
    EXPECT_EQ(Check(100, SecretNtWide), Allowed);
    EXPECT_EQ(Check(200, SecretNtWide), Refused);
}

TEST_F(FileProtectionList, APathThatIsNoDrivePathIsRefused)
{
    Listen();
    for (const WideView path : {L"secret.txt", L"", L"\\Device\\HarddiskVolume1\\a"})
    {
        EXPECT_THAT(PrintsOf([&] { EXPECT_EQ(agent_.AddFileProtection(100, path).Status, STATUS_INVALID_PARAMETER); }),
            testing::Contains("GetNtNameFromDosName failed: Invalid Parameter " + Narrow(path) + "\n"));
    }
    EXPECT_EQ(agent_.AddFileProtection(100, L"Q:\\a").Status, STATUS_OBJECT_NAME_NOT_FOUND);
    EXPECT_THAT(Messages(), IsEmpty());
    EXPECT_THAT(AllPaths(), IsEmpty());
    EXPECT_FALSE(Stored().has_value());
}

TEST_F(FileProtectionList, AMissingPathIsRefused)
{
    ULONG id = 4711;
    EXPECT_EQ(AddFileProtectionSetting(ProcessIdHandle(100), nullptr, &id), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(id, 4711u);
}

TEST_F(FileProtectionList, LookUpsByPathAndProcess)
{
    EXPECT_EQ(agent_.AddFileProtection(100, Secret), Added(Id(0)));
    FileProtection* protection = Find(L"\\DEVICE\\HARDDISKVOLUME1\\DATA\\SECRET.TXT");
    ASSERT_NE(protection, nullptr);
    ULONG id = 0;
    EXPECT_EQ(FindAllowedProcess(protection, ProcessIdHandle(100), &id), STATUS_SUCCESS);
    EXPECT_EQ(id, Id(0));
    EXPECT_EQ(FindAllowedProcess(protection, ProcessIdHandle(100), nullptr), STATUS_SUCCESS);
    id = 4711;
    EXPECT_EQ(FindAllowedProcess(protection, ProcessIdHandle(104), &id), STATUS_NOT_FOUND);
    EXPECT_EQ(id, 4711u);
    const UNICODE_STRING unknown = Counted(L"\\Device\\HarddiskVolume1\\Data\\secret.tx");
    FileProtection* untouched = protection;
    EXPECT_EQ(FindFileProtection(&unknown, &untouched), STATUS_NOT_FOUND);
    EXPECT_EQ(GetFileProtectionAt(0, &untouched), STATUS_SUCCESS);
    EXPECT_EQ(untouched, protection);
    EXPECT_EQ(GetFileProtectionAt(1, &untouched), STATUS_NOT_FOUND);
}

TEST_F(FileProtectionList, AppendingLooksForNothingAndKeepsTheCapacity)
{
    WCHAR text[] = L"\\Device\\V\\a.txt....";
    UNICODE_STRING path = {};
    path.Buffer = text;
    path.Length = 30;
    path.MaximumLength = 38;
    EXPECT_EQ(AddNewFileProtection(&path), STATUS_SUCCESS);
    EXPECT_EQ(AddNewFileProtection(&path), STATUS_SUCCESS);
    EXPECT_THAT(AllPaths(), ElementsAre("\\Device\\V\\a.txt", "\\Device\\V\\a.txt"));
    FileProtection* protection = nullptr;
    ASSERT_EQ(GetFileProtectionAt(1, &protection), STATUS_SUCCESS);
    EXPECT_EQ(protection->Path.Length, 30);
    EXPECT_EQ(protection->Path.MaximumLength, 38);
    EXPECT_NE(protection->Path.Buffer, text);
}
}
}
