// Protections when something fails, and what is printed while the frequent traces are on.

#include "driver/process/file_protection.h"

#include "driver/util/debug_print.h"
#include "tests/support/machine.h"
#include "tests/unit/driver/process/agent_fixture.h"

namespace agent_test
{
namespace
{
constexpr WideView Secret = L"C:\\s";
constexpr char SecretNt[] = "\\Device\\HarddiskVolume1\\s";

class FileProtectionFailures : public AgentTest
{
protected:
    ULONG Count()
    {
        ULONG count = 0;
        FileProtection* protection = nullptr;
        while (NT_SUCCESS(GetFileProtectionAt(count, &protection)))
        {
            ++count;
        }
        return count;
    }
    bool HasStored() { return machine_.Registry().GetValue(Machine::ServiceKey, L"ProtectionFiles").has_value(); }
    std::string RequestText(ULONG id) const
    {
        return Text("Tarnveil - IOCTL_ADD_FILE_PROTECTION: pid =  100 path = 'C:\\s', id(%d)\n", static_cast<int>(id));
    }
    // What four bytes hold that nobody wrote.
    static constexpr ULONG Unwritten = 0xEEEEEEEE;
};

TEST_F(FileProtectionFailures, EachFailedAllocationHasItsAnswer)
{
    struct Case
    {
        const char* Print;
        NTSTATUS Status;
        ULONG Paths;
    };
    constexpr Case entry = {"Tarnveil - file protection entry allocate error\n", STATUS_INSUFFICIENT_RESOURCES, 0};
    constexpr Case text = {"Tarnveil - file path buffer allocate error\n", STATUS_INSUFFICIENT_RESOURCES, 0};
    constexpr Case allowed = {"Tarnveil - allowed process entry allocate error\n", STATUS_MEMORY_NOT_ALLOCATED, 1};
    constexpr Case store = {"Tarnveil - REG_MULTI_SZ buffer allocate error\n", STATUS_SUCCESS, 1};
    std::vector<std::string> seen;
    for (uint64_t number = 1; number < 60; ++number)
    {
        ASSERT_EQ(machine_.UnloadDriver(), STATUS_SUCCESS);
        machine_.Registry().DeleteValue(Machine::ServiceKey, L"ProtectionFiles");
        ASSERT_EQ(machine_.LoadDriver(Image::Native), STATUS_SUCCESS);
        FailRoutine("ExAllocatePoolWithTag", number);
        ControlAnswer answer;
        const auto prints = PrintsOf([&] { answer = agent_.AddFileProtection(100, Secret); });
        const bool failed = InjectedFailures() != 0;
        ResetFailures();
        if (!failed)
        {
            EXPECT_EQ(answer.Status, STATUS_SUCCESS);
            break;
        }
        for (const Case& expected : {entry, text, allowed, store})
        {
            if (std::ranges::find(prints, expected.Print) == prints.end())
            {
                continue;
            }
            seen.push_back(expected.Print);
            EXPECT_EQ(answer.Status, expected.Status) << expected.Print;
            EXPECT_EQ(Count(), expected.Paths) << expected.Print;
            EXPECT_FALSE(HasStored()) << expected.Print;
            // The number is answered as soon as there is one.
            EXPECT_EQ(answer.Value == Unwritten, !NT_SUCCESS(expected.Status)) << expected.Print;
        }
    }
    EXPECT_THAT(seen, ElementsAre(entry.Print, text.Print, allowed.Print, store.Print));
}

TEST_F(FileProtectionFailures, APathLeftByAFailedRequestIsNotStoredByTheNext)
{
    const UNICODE_STRING path = Counted(L"\\Device\\HarddiskVolume1\\s");
    ASSERT_EQ(AddNewFileProtection(&path), STATUS_SUCCESS);
    EXPECT_EQ(agent_.AddFileProtection(100, Secret), Added(Id(0)));
    EXPECT_FALSE(HasStored());
    EXPECT_EQ(Count(), 1u);
    // A new path brings it along.
    EXPECT_EQ(agent_.AddFileProtection(100, L"C:\\t"), Added(Id(1)));
    EXPECT_EQ(machine_.Registry().GetValue(Machine::ServiceKey, L"ProtectionFiles")->Bytes.size(), 106u);
}

TEST_F(FileProtectionFailures, AFailureToOpenTheKeyIsPrintedAndDoesNotFailTheRequest)
{
    FailRoutine("ZwOpenKey");
    EXPECT_THAT(PrintsOf([&] { EXPECT_EQ(agent_.AddFileProtection(100, Secret), Added(Id(0))); }),
        ElementsAre("Tarnveil.sys: ", Text("[IDMan] IssueId = %u\n", Id(0)),
            "Tarnveil - ZwOpenKey failed. NTStatus = c000009a\n", RequestText(Id(0))));
    ResetFailures();
    EXPECT_FALSE(HasStored());
    EXPECT_EQ(Count(), 1u);
}

TEST_F(FileProtectionFailures, AFailureToSetTheValueIsPrintedAndDoesNotFailTheRequest)
{
    FailRoutine("ZwSetValueKey");
    EXPECT_THAT(PrintsOf([&] { EXPECT_EQ(agent_.AddFileProtection(100, Secret), Added(Id(0))); }),
        ElementsAre("Tarnveil.sys: ", Text("[IDMan] IssueId = %u\n", Id(0)),
            "Tarnveil - ZwSetValueKey failed. ValueName = ProtectionFiles DataSize = 54 NTStatus = c000009a\n",
            RequestText(Id(0))));
    ResetFailures();
    EXPECT_FALSE(HasStored());
}

TEST_F(FileProtectionFailures, AServiceKeyThatIsGoneIsPrinted)
{
    machine_.Registry().DeleteKey(Machine::ServiceKey);
    EXPECT_THAT(PrintsOf([&] { EXPECT_EQ(agent_.AddFileProtection(100, Secret), Added(Id(0))); }),
        testing::Contains("Tarnveil - ZwOpenKey failed. NTStatus = c0000034\n"));
    EXPECT_EQ(SaveProtectionFiles(), STATUS_OBJECT_NAME_NOT_FOUND);
}

TEST_F(FileProtectionFailures, SavingReportsItsStatus)
{
    EXPECT_EQ(SaveProtectionFiles(), STATUS_SUCCESS);
    // The empty list is its final string alone.
    EXPECT_EQ(machine_.Registry().GetValue(Machine::ServiceKey, L"ProtectionFiles")->Bytes.size(), 2u);
    for (const char* routine : {"ExAllocatePoolWithTag", "ZwOpenKey", "ZwSetValueKey"})
    {
        FailRoutine(routine);
        EXPECT_EQ(SaveProtectionFiles(), STATUS_INSUFFICIENT_RESOURCES) << routine;
        ResetFailures();
    }
}

TEST_F(FileProtectionFailures, FrequentTracesOfAddingAndDeleting)
{
    Global.VerboseTrace = TRUE;
    const auto adding = PrintsOf([&] { EXPECT_EQ(agent_.AddFileProtection(100, Secret), Added(Id(0))); });
    FileProtection* protection = nullptr;
    ASSERT_EQ(GetFileProtectionAt(0, &protection), STATUS_SUCCESS);
    auto pointer = [](const void* address)
    { return Text("%016llX", static_cast<unsigned long long>(reinterpret_cast<ULONG_PTR>(address))); };
    ASSERT_EQ(adding.size(), 9u);
    // The address of a variable of the driver: whatever it is, both look-ups ask with the same one.
    ASSERT_GT(adding[0].size(), 17u);
    const std::string address = adding[0].substr(adding[0].size() - 17, 16);
    EXPECT_EQ(address.find_first_not_of("0123456789ABCDEF"), std::string::npos) << address;
    EXPECT_EQ(
        adding[0], std::string("Tarnveil - FindFileProtection File      = ") + SecretNt + " Entry = " + address + "\n");
    EXPECT_EQ(adding[0], adding[3]);
    EXPECT_EQ(adding[1],
        std::string("Tarnveil -     NOT Found FileProtection = ") + SecretNt + " Entry = " + pointer(nullptr) + "\n");
    EXPECT_EQ(adding[2], std::string("Tarnveil - AddNewFileProtection File    = ") + SecretNt + "\n");
    EXPECT_EQ(adding[4], std::string("Tarnveil -     Found FileProtection     = ") + SecretNt +
                             " Entry = " + pointer(protection) + "\n");
    EXPECT_EQ(adding[5], "Tarnveil.sys: ");
    EXPECT_EQ(adding[6], Text("[IDMan] IssueId = %u\n", Id(0)));
    EXPECT_EQ(adding[7], "Tarnveil - ZwSetValueKey ValueName = ProtectionFiles DataSize = 54 NTStatus = 0\n");
    EXPECT_EQ(adding[8], RequestText(Id(0)));
    EXPECT_THAT(PrintsOf([&] { EXPECT_EQ(agent_.DelFileProtection(Id(0)), STATUS_SUCCESS); }),
        testing::Contains(Text("Tarnveil - IRP = DEV_CTRL IOCTL = DEL_PROTECT status = DELETED_SETTING id = %u pid = "
                               "100 path = %s\n",
            Id(0), SecretNt)));
}

TEST_F(FileProtectionFailures, FrequentTracesOfAProcessExit)
{
    const Program reader = machine_.StartProcess(L"C:\\Apps\\Reader.exe");
    EXPECT_EQ(agent_.AddFileProtection(reader.ProcessId(), Secret), Added(Id(0)));
    Global.VerboseTrace = TRUE;
    EXPECT_THAT(PrintsOf([&] { reader.Exit(); }),
        ElementsAre("Tarnveil.sys: ", Text("[IDMan] ReleaseId = %u\n", Id(0)),
            Text("Tarnveil - PROC = EXITS status = DELETED_SETTING id = %u pid = %u path = %s\n", Id(0),
                reader.ProcessId(), SecretNt)));
}

TEST_F(FileProtectionFailures, FrequentTracesOfClearing)
{
    EXPECT_EQ(agent_.AddFileProtection(100, Secret), Added(Id(0)));
    EXPECT_EQ(agent_.AddFileProtection(200, Secret), Added(Id(1)));
    EXPECT_EQ(agent_.AddFileProtection(300, L"C:\\t"), Added(Id(2)));
    Global.VerboseTrace = TRUE;
    EXPECT_THAT(PrintsOf([] { ClearFileProtections(); }),
        ElementsAre(Text("Tarnveil - Remove FindFileProtection = %s\n", SecretNt),
            Text("Tarnveil -        SettingId = %u ProcessId = 100\n", Id(0)), "Tarnveil.sys: ",
            Text("[IDMan] ReleaseId = %u\n", Id(0)), Text("Tarnveil -        SettingId = %u ProcessId = 200\n", Id(1)),
            "Tarnveil.sys: ", Text("[IDMan] ReleaseId = %u\n", Id(1)),
            "Tarnveil - Remove FindFileProtection = \\Device\\HarddiskVolume1\\t\n",
            Text("Tarnveil -        SettingId = %u ProcessId = 300\n", Id(2)),
            "Tarnveil.sys: ", Text("[IDMan] ReleaseId = %u\n", Id(2))));
    EXPECT_EQ(Count(), 0u);
}

TEST_F(FileProtectionFailures, UnloadFreesProtectionsSilently)
{
    EXPECT_EQ(agent_.AddFileProtection(100, Secret), Added(Id(0)));
    Listen();
    EXPECT_THAT(PrintsOf([&] { EXPECT_EQ(machine_.UnloadDriver(), STATUS_SUCCESS); }),
        ElementsAre("Tarnveil Unload\n", "Tarnveil.sys: ", Text("[IDMan] ReleaseId = %u\n", Id(0)),
            "Tarnveil Unload STATUS_SUCCESS\n"));
}

TEST_F(FileProtectionFailures, ABrokenListStopsTheSystem)
{
    EXPECT_EQ(agent_.AddFileProtection(100, Secret), Added(Id(0)));
    FileProtection* protection = nullptr;
    ASSERT_EQ(GetFileProtectionAt(0, &protection), STATUS_SUCCESS);
    EXPECT_DEATH(
        {
            protection->Links.Flink = &protection->Links;
            ClearFileProtections();
        },
        "fast-fail|list corruption");
}
}
}
