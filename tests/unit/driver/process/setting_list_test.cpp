// The agent's lists of executables.
#include "driver/process/setting_list.h"
#include "tests/unit/driver/process/agent_fixture.h"

using namespace agent_test;

namespace
{
struct ListCase
{
    const char* Name;
    const ProcessNameSettingList* List;
    ControlAnswer (ControlClient::*Add)(WideView) const;
    ULONG Code;
    const char* Request;
    const char* Label;
};

const ListCase Lists[] = {
    {"Parent", &ParentProcessNames, &ControlClient::AddParentProcess, IOCTL_ADD_PARENT_PROCESS,
        "IOCTL_ADD_PARENT_PROCESS", "IOCTL = ADD_PARENT"},
    {"Process", &ProcessNames, &ControlClient::AddProcess, IOCTL_ADD_PROCESS, "IOCTL_ADD_PROCESS",
        "IOCTL = ADD_PROCESS"},
    {"Exclusion", &ExclusionProcessNames, &ControlClient::AddExclusion, IOCTL_ADD_EXC_PROCESS, "IOCTL_ADD_EXC_PROCESS",
        "IOCTL = ADD_EXC_PROC"},
};

void PrintTo(const ListCase& list, std::ostream* stream)
{
    *stream << list.Name;
}

class SettingListTest : public AgentTest, public testing::WithParamInterface<ListCase>
{
protected:
    ControlAnswer Add(WideView path) { return (agent_.*GetParam().Add)(path); }
    std::string Record(const char* operation, const char* outcome, ULONG id, const char* path)
    {
        return Text("IRP = DEV_CTRL %s status = %s id = %u path = %s", operation, outcome, id, path);
    }
    // What a scan of the machine's processes prints besides: the idle process cannot be looked up, and the system
    // process has no image.
    std::vector<std::string> WithScan(std::vector<std::string> before, std::string after)
    {
        if (GetParam().List != &ExclusionProcessNames)
        {
            before.insert(before.end(), {"PsLookupProcessByProcessId Failed: 0xC000000DL, ProcessId = 0\n",
                                            "Tarnveil - GetProcessImageNameFromProcessId Failed: 0xC000000DL\n",
                                            "Tarnveil - KernelGetLongPathName failed c000000d\n"});
        }
        if (GetParam().List == &ProcessNames)
        {
            // The browser-mode list looks at the processes once more.
            before.push_back("PsLookupProcessByProcessId Failed: 0xC000000DL, ProcessId = 0\n");
        }
        before.push_back(std::move(after));
        return before;
    }
    bool Find(WideView path, ULONG* id)
    {
        const UNICODE_STRING name = Counted(path);
        return FindSetting(*GetParam().List, &name, id);
    }
    const char* Label() const { return GetParam().Label; }
};

INSTANTIATE_TEST_SUITE_P(
    Lists, SettingListTest, testing::ValuesIn(Lists), [](const auto& info) { return std::string(info.param.Name); });

TEST_P(SettingListTest, AnAddIsPrintedAndRecorded)
{
    Listen();
    EXPECT_THAT(PrintsOf([&] { EXPECT_EQ(Add(L"C:\\Apps\\Tool.exe"), Added(Id(0))); }),
        WithScan({"Tarnveil.sys: ", Text("[IDMan] IssueId = %u\n", Id(0))},
            Text("Tarnveil - %s: 'C:\\Apps\\Tool.exe', id(%d)\n", GetParam().Request, Id(0))));
    EXPECT_THAT(agent_.DrainLog(), ElementsAre(LogRecord{0x40, agent_.ProcessId(), "agent.exe",
                                       Record(Label(), "ADDED_SETTING", Id(0), "C:\\Apps\\Tool.exe")}));
}

TEST_P(SettingListTest, TheSamePathInOtherCaseKeepsItsId)
{
    Listen();
    EXPECT_EQ(Add(L"C:\\Apps\\Tool.exe"), Added(Id(0)));
    EXPECT_THAT(PrintsOf([&] { EXPECT_EQ(Add(L"c:\\apps\\TOOL.EXE"), Added(Id(0))); }),
        WithScan({}, Text("Tarnveil - %s: 'c:\\apps\\TOOL.EXE', id(%d)\n", GetParam().Request, Id(0))));
    EXPECT_EQ(agent_.StopDriver(), STATUS_SUCCESS);
    EXPECT_THAT(Messages(), ElementsAre(Record(Label(), "ADDED_SETTING", Id(0), "C:\\Apps\\Tool.exe"),
                                Record(Label(), "SETTING_EXISTS", Id(0), "c:\\apps\\TOOL.EXE"),
                                Record("IOCTL = STOP", "DELETED_SETTING", Id(0), "C:\\Apps\\Tool.exe")));
}

TEST_P(SettingListTest, AnEntryHoldsItsOwnTerminatedText)
{
    EXPECT_EQ(Add(L"C:\\a.exe"), Added(Id(0)));
    auto& settings = GetParam().List->Settings;
    WithLock(settings.Lock,
        [&]() REQUIRES_LOCK(settings.Lock)
        {
            EXPECT_EQ(settings.Entries.Count(), 1u);
            const ProcessNameEntry* entry = settings.Entries.First();
            ASSERT_NE(entry, nullptr);
            EXPECT_EQ(Narrow(entry->Name.Buffer), "C:\\a.exe");
            EXPECT_EQ(entry->Name.Length, 16);
            EXPECT_EQ(entry->Name.MaximumLength, 18);
            EXPECT_EQ(entry->SettingId, Id(0));
        });
}

TEST_P(SettingListTest, OfALengthBeyond16BitsOnlyTheLowBitsRemain)
{
    // 65536 + 8 bytes.
    const WideString path = L"C:\\a" + WideString(32768, L'x');
    ULONG id = 77777;
    // What a scan makes of such a path is another matter.
    AddSetting(*GetParam().List, path.c_str(), &id);
    EXPECT_EQ(id, Id(0));
    ULONG found = 77777;
    if (GetParam().List == &ExclusionProcessNames)
    {
        EXPECT_TRUE(Find(L"C:\\a", &found));
        EXPECT_EQ(found, Id(0));
        EXPECT_EQ(Add(L"c:\\A"), Added(Id(0))) << "the same setting";
    }
    EXPECT_FALSE(Find(L"C:\\ax", &found));
    DeleteSettingsByPath(*GetParam().List, path.c_str());
    EXPECT_FALSE(Find(L"C:\\a", &found));
}

TEST_P(SettingListTest, AWildcardStandsForItself)
{
    EXPECT_EQ(Add(L"C:\\Apps\\*.exe"), Added(Id(0)));
    ULONG id = 77777;
    EXPECT_FALSE(Find(L"C:\\Apps\\Tool.exe", &id));
    EXPECT_EQ(id, 77777u);
    EXPECT_TRUE(Find(L"C:\\APPS\\*.exe", &id));
    EXPECT_EQ(id, Id(0));
}

TEST_P(SettingListTest, APrefixOfASettingIsNoSetting)
{
    EXPECT_EQ(Add(L"C:\\Apps\\Tool.exe"), Added(Id(0)));
    ULONG id = 0;
    EXPECT_FALSE(Find(L"C:\\Apps\\Tool.ex", &id));
    EXPECT_FALSE(Find(L"C:\\Apps\\Tool.exe2", &id));
    EXPECT_FALSE(FindSetting(*GetParam().List, nullptr, &id));
}

TEST_P(SettingListTest, ANullPathIsRefused)
{
    ULONG id = 77777;
    EXPECT_THAT(
        PrintsOf([&] { EXPECT_EQ(AddSetting(*GetParam().List, nullptr, &id), STATUS_INVALID_PARAMETER); }), IsEmpty());
    EXPECT_EQ(id, 77777u);
    DeleteSettingsByPath(*GetParam().List, nullptr);
}

TEST_P(SettingListTest, AnOutputOfOtherThanFourBytesAddsNothing)
{
    const std::string path("C\0:\0\\\0a\0\0\0", 10);
    for (const ULONG size : {0u, 3u, 5u, 8u})
    {
        EXPECT_THAT(
            PrintsOf(
                [&] { EXPECT_EQ(agent_.DeviceControl(GetParam().Code, path, size).Status, STATUS_INVALID_PARAMETER); }),
            IsEmpty());
    }
    ULONG id = 0;
    EXPECT_FALSE(Find(L"C:\\a", &id));
}

TEST_P(SettingListTest, DeletingByIdRecordsTheDeletion)
{
    Add(L"C:\\a.exe");
    Add(L"C:\\b.exe");
    Listen();
    EXPECT_THAT(PrintsOf([&] { EXPECT_EQ(agent_.DelProcess(Id(0)), STATUS_SUCCESS); }),
        ElementsAre(Text("Tarnveil - IOCTL_DEL_PROCESS: id(%d)\n", Id(0)),
            "Tarnveil.sys: ", Text("[IDMan] ReleaseId = %u\n", Id(0))));
    EXPECT_THAT(Messages(), ElementsAre(Record("IOCTL = DEL_PROCESS", "DELETED_SETTING", Id(0), "C:\\a.exe")));
    ULONG id = 0;
    EXPECT_FALSE(Find(L"C:\\a.exe", &id));
    EXPECT_TRUE(Find(L"C:\\b.exe", &id));
}

TEST_P(SettingListTest, ADeletedIdIsGivenOutAgain)
{
    Add(L"C:\\a.exe");
    Add(L"C:\\b.exe");
    agent_.DelProcess(Id(0));
    EXPECT_EQ(Add(L"C:\\c.exe"), Added(Id(0)));
    EXPECT_EQ(Add(L"C:\\d.exe"), Added(Id(2)));
}

TEST_P(SettingListTest, AnIdThatNobodyHasDeletesNothing)
{
    Add(L"C:\\a.exe");
    Listen();
    EXPECT_THAT(PrintsOf([&] { EXPECT_EQ(agent_.DelProcess(Id(1)), STATUS_SUCCESS); }),
        ElementsAre(Text("Tarnveil - IOCTL_DEL_PROCESS: id(%d)\n", Id(1))));
    EXPECT_THAT(Messages(), IsEmpty());
}

TEST_P(SettingListTest, DeletingByPathCarriesTheRequestsOwnLabel)
{
    Add(L"C:\\a.exe");
    Add(L"C:\\b.exe");
    Listen();
    agent_.As([&] { DeleteSettingsByPath(*GetParam().List, L"c:\\B.exe"); });
    EXPECT_THAT(Messages(), ElementsAre(Record(Label(), "DELETED_SETTING", Id(1), "C:\\b.exe")));
}

TEST_P(SettingListTest, StopEmptiesTheListInOrder)
{
    Add(L"C:\\a.exe");
    Add(L"C:\\b.exe");
    Listen();
    EXPECT_THAT(PrintsOf([&] { EXPECT_EQ(agent_.StopDriver(), STATUS_SUCCESS); }),
        ElementsAre("Tarnveil - IOCTL_STOP\n", "Tarnveil.sys: ", Text("[IDMan] ReleaseId = %u\n", Id(0)),
            "Tarnveil.sys: ", Text("[IDMan] ReleaseId = %u\n", Id(1))));
    EXPECT_THAT(Messages(), ElementsAre(Record("IOCTL = STOP", "DELETED_SETTING", Id(0), "C:\\a.exe"),
                                Record("IOCTL = STOP", "DELETED_SETTING", Id(1), "C:\\b.exe")));
}

TEST_P(SettingListTest, StopOfAnEmptyListRecordsNothing)
{
    Listen();
    EXPECT_EQ(agent_.StopDriver(), STATUS_SUCCESS);
    EXPECT_THAT(Messages(), IsEmpty());
}

TEST_P(SettingListTest, WithoutTheLogFlagAClearIsSilent)
{
    Add(L"C:\\a.exe");
    Listen();
    ClearSettings(*GetParam().List, false);
    EXPECT_THAT(Messages(), IsEmpty());
    EXPECT_EQ(IssueId(), Id(0));
}

TEST_P(SettingListTest, WithoutMemoryForTheArrayADeletionGoesUnrecorded)
{
    Add(L"C:\\a.exe");
    Listen();
    FailRoutine("ExAllocatePoolWithTag");
    DeleteSettingsById(*GetParam().List, Id(0));
    EXPECT_EQ(InjectedFailures(), 1u);
    ResetFailures();
    EXPECT_THAT(Messages(), IsEmpty());
    ULONG id = 0;
    EXPECT_FALSE(Find(L"C:\\a.exe", &id));
    EXPECT_EQ(IssueId(), Id(0));
}

TEST_P(SettingListTest, WithoutMemoryNothingIsAdded)
{
    const char* const prints[] = {
        "Tarnveil - process name entry allocate error\n", "Tarnveil - current process list allocate error\n"};
    for (ULONG i = 0; i < 2; ++i)
    {
        ULONG id = 77777;
        FailRoutine("ExAllocatePoolWithTag", i + 1);
        EXPECT_THAT(
            PrintsOf([&] { EXPECT_EQ(AddSetting(*GetParam().List, L"C:\\a.exe", &id), STATUS_MEMORY_NOT_ALLOCATED); }),
            ElementsAre(prints[i]));
        ResetFailures();
        EXPECT_EQ(id, 77777u);
        EXPECT_FALSE(Find(L"C:\\a.exe", &id));
    }
}

// The agent is expected to add it again.
TEST_P(SettingListTest, AFailedSecondAddRemovesTheFirst)
{
    Add(L"C:\\a.exe");
    Listen(0);
    ULONG id = 77777;
    FailRoutine("ExAllocatePoolWithTag");
    EXPECT_EQ(AddSetting(*GetParam().List, L"C:\\A.exe", &id), STATUS_MEMORY_NOT_ALLOCATED);
    ResetFailures();
    EXPECT_EQ(id, Id(0));
    EXPECT_FALSE(Find(L"C:\\a.exe", &id));
}

TEST_P(SettingListTest, AFailedSnapshotTakesTheSettingBack)
{
    Listen();
    // The first record needs a snapshot, too; only the query of the registration fails.
    int queries = 0;
    SetSystemQueryHook(
        [&](ULONG, ULONG length) -> std::optional<QueryAnswer>
        {
            queries += length == 0 ? 1 : 0;
            return queries == 2 && length == 0 ? std::optional(QueryAnswer{STATUS_ACCESS_DENIED, 0}) : std::nullopt;
        });
    const bool registers = GetParam().List != &ExclusionProcessNames;
    ControlAnswer answer;
    const auto prints = PrintsOf([&] { answer = Add(L"C:\\a.exe"); });
    SetSystemQueryHook({});
    if (!registers)
    {
        EXPECT_EQ(answer, Added(Id(0)));
        return;
    }
    EXPECT_EQ(answer, (ControlAnswer{STATUS_ACCESS_DENIED, Id(0)}));
    EXPECT_THAT(prints, ElementsAre("Tarnveil.sys: ", Text("[IDMan] IssueId = %u\n", Id(0)),
                            "[DlExtFunc] QuerySystemInformation failed : non-mismatch C0000022\n",
                            "Tarnveil - QuerySystemInformation error c0000022\n",
                            "Tarnveil.sys: ", Text("[IDMan] ReleaseId = %u\n", Id(0)),
                            Text("Tarnveil - %s: 'C:\\a.exe', id(%d)\n", GetParam().Request, Id(0))));
    EXPECT_THAT(Messages(), ElementsAre(Record(Label(), "ADDED_SETTING", Id(0), "C:\\a.exe"),
                                Record(Label(), "DELETED_SETTING", Id(0), "C:\\a.exe")));
    ULONG id = 0;
    EXPECT_FALSE(Find(L"C:\\a.exe", &id));
    EXPECT_EQ(IssueId(), Id(0));
}

using SettingListsTest = AgentTest;

TEST_F(SettingListsTest, APathMayStandInAllThreeLists)
{
    EXPECT_EQ(agent_.AddParentProcess(L"C:\\a.exe"), Added(Id(0)));
    EXPECT_EQ(agent_.AddProcess(L"C:\\a.exe"), Added(Id(1)));
    EXPECT_EQ(agent_.AddExclusion(L"C:\\a.exe"), Added(Id(2)));
    Listen();
    agent_.StopDriver();
    EXPECT_THAT(Messages(),
        ElementsAre(Text("IRP = DEV_CTRL IOCTL = STOP status = DELETED_SETTING id = %u path = C:\\a.exe", Id(0)),
            Text("IRP = DEV_CTRL IOCTL = STOP status = DELETED_SETTING id = %u path = C:\\a.exe", Id(1)),
            Text("IRP = DEV_CTRL IOCTL = STOP status = DELETED_SETTING id = %u path = C:\\a.exe", Id(2))));
}

TEST_F(SettingListsTest, APathThatIsNoDrivePathIsTakenBack)
{
    Listen();
    EXPECT_THAT(PrintsOf([&] { EXPECT_EQ(agent_.AddParentProcess(L"a.exe").Status, STATUS_INVALID_PARAMETER); }),
        testing::Contains("Tarnveil - RegistMonitoredParentProcess error - c000000d\n"));
    EXPECT_THAT(PrintsOf([&] { EXPECT_EQ(agent_.AddProcess(L"a.exe").Status, STATUS_INVALID_PARAMETER); }),
        testing::Contains("Tarnveil - RegistMonitoredProcess error - c000000d\n"));
    EXPECT_THAT(Messages(),
        ElementsAre(Text("IRP = DEV_CTRL IOCTL = ADD_PARENT status = ADDED_SETTING id = %u path = a.exe", Id(0)),
            Text("IRP = DEV_CTRL IOCTL = ADD_PARENT status = DELETED_SETTING id = %u path = a.exe", Id(0)),
            Text("IRP = DEV_CTRL IOCTL = ADD_PROCESS status = ADDED_SETTING id = %u path = a.exe", Id(0)),
            Text("IRP = DEV_CTRL IOCTL = ADD_PROCESS status = DELETED_SETTING id = %u path = a.exe", Id(0))));
    // A setting that concerns processes to come may name anything.
    EXPECT_EQ(agent_.AddExclusion(L"a.exe"), Added(Id(0)));
}

}
