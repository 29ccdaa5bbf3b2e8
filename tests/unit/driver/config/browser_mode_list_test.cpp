// The browser-mode list: when it is built, what it prints, who gets in.

#include "driver/config/browser_mode_list.h"

#include "driver/names/process_snapshot.h"
#include "tests/unit/driver/config/product_fixture.h"

#include <tarnveil/control.h>

namespace product_test
{
namespace
{
const Texts ProgramPatterns = {"Added SettingInfo = *\\msedgewebview2.exe\n", "Added SettingInfo = *\\spoolsv.exe\n",
    "Added SettingInfo = *\\splwow64.exe\n"};
const std::string FolderMissing = std::string("Failed to ZwQueryValueKey. Path = ") + ProductKeyText +
                                  " ValueName = InstallFolder NTStatus = c0000034\n";

class BrowserModeList : public ProductTest
{
protected:
    // What a load prints between its first line and the system's version: the building of the list.
    Texts BuildPrintsOfLoad()
    {
        Texts prints = LoadPrints();
        const auto end = std::ranges::find(prints, "Tarnveil - OS Version: 0x06010000\n");
        EXPECT_NE(end, prints.end());
        return {prints.begin() + 1, end};
    }
    Texts ModeTexts(char digit) const
    {
        return {std::string("Decoded InstallerType = ABCDEF") + digit + "@\n",
            std::string("Installer Mode = ") + digit + "\n"};
    }
    // Of the patterns, in order.
    Texts Patterns()
    {
        Texts patterns;
        WithLock(Global.BrowserModeList.Lock,
            [&]() REQUIRES_LOCK(Global.BrowserModeList.Lock)
            {
                Global.BrowserModeList.Settings.ForEach(
                    [&](SettingInfo* entry) { patterns.push_back(Narrow(View(entry->Pattern))); });
            });
        return patterns;
    }
    std::vector<HANDLE> Processes()
    {
        std::vector<HANDLE> ids;
        WithLock(Global.BrowserModeList.Lock,
            [&]() REQUIRES_LOCK(Global.BrowserModeList.Lock)
            {
                Global.BrowserModeList.Processes.ForEach(
                    [&](ApplicationProcess* entry) { ids.push_back(entry->ProcessId); });
            });
        return ids;
    }
    static bool IsIn(const Program& program) { return NT_SUCCESS(BRPLLookup(program.Id())); }
    static NTSTATUS Insert(ULONG id, WideView path)
    {
        const UNICODE_STRING name = Counted(path);
        return BRPLInsert(ProcessIdHandle(id), &name);
    }
    static bool IsData(WideView path)
    {
        const UNICODE_STRING name = Counted(path);
        return BRPLIsDataPath(&name);
    }
};

TEST_F(BrowserModeList, BuiltAtLoadWithTheProductFolder)
{
    SetMode('0');
    SetInstallFolder(L"C:\\Bay\\");
    EXPECT_EQ(BuildPrintsOfLoad(),
        Named(
            ModeTexts('0') + Texts{"ProductPath = C:\\Bay\\\n", "Added SettingInfo = C:\\Bay\\*\n"} + ProgramPatterns));
    EXPECT_TRUE(IsBrowserModeActive());
    EXPECT_THAT(Patterns(), ElementsAre("C:\\Bay\\*", "*\\msedgewebview2.exe", "*\\spoolsv.exe", "*\\splwow64.exe"));
}

TEST_F(BrowserModeList, WithoutAnInstallFolderTheUsualOneIsTaken)
{
    SetMode('2');
    EXPECT_EQ(BuildPrintsOfLoad(),
        Named(ModeTexts('2') + Texts{FolderMissing, "Added SettingInfo = *\\Orvane Hollowbay\\*\n"} + ProgramPatterns));
    EXPECT_TRUE(IsBrowserModeActive());
}

TEST_F(BrowserModeList, AnUnknownModeBuildsItToo)
{
    SetMode('7');
    EXPECT_EQ(BuildPrintsOfLoad(), Named(Texts{"Decoded InstallerType = ABCDEF7@\n", "Installer Mode = -1\n",
                                             FolderMissing, "Added SettingInfo = *\\Orvane Hollowbay\\*\n"} +
                                         ProgramPatterns));
    EXPECT_TRUE(IsBrowserModeActive());
}

TEST_F(BrowserModeList, ModeOneLeavesItInactiveForGood)
{
    SetMode('1');
    EXPECT_EQ(BuildPrintsOfLoad(), Named(ModeTexts('1')));
    EXPECT_FALSE(IsBrowserModeActive());
    EXPECT_THAT(Patterns(), IsEmpty());
    const Program agent = computer_.StartProcess(L"C:\\agent.exe");
    SetMode('0');
    EXPECT_THAT(
        PrintsOf([&] { EXPECT_EQ(agent.StartDriver(), STATUS_SUCCESS); }), ElementsAre("Tarnveil - IOCTL_START\n"));
    EXPECT_FALSE(IsBrowserModeActive());
    EXPECT_THAT(Patterns(), IsEmpty());
}

TEST_F(BrowserModeList, AStartRequestBuildsItOnceTheInstallerHasWritten)
{
    Load();
    const Program agent = computer_.StartProcess(L"C:\\agent.exe");
    EXPECT_FALSE(IsBrowserModeActive());
    EXPECT_EQ(PrintsOf([&] { EXPECT_EQ(agent.StartDriver(), STATUS_SUCCESS); }),
        Texts{"Tarnveil - IOCTL_START\n"} +
            Named({std::string("Failed to ZwOpenKey. Path = ") + ProductKeyText + " NTStatus = c0000034\n"}));
    SetMode('0');
    SetInstallFolder(L"D:\\Bay");
    EXPECT_EQ(PrintsOf([&] { EXPECT_EQ(agent.StartDriver(), STATUS_SUCCESS); }),
        Texts{"Tarnveil - IOCTL_START\n"} +
            Named(
                ModeTexts('0') + Texts{"ProductPath = D:\\Bay\n", "Added SettingInfo = D:\\Bay*\n"} + ProgramPatterns));
    EXPECT_TRUE(IsBrowserModeActive());
    // Built once per load, whatever becomes of the values.
    SetMode('1');
    EXPECT_THAT(
        PrintsOf([&] { EXPECT_EQ(agent.StartDriver(), STATUS_SUCCESS); }), ElementsAre("Tarnveil - IOCTL_START\n"));
    EXPECT_TRUE(IsBrowserModeActive());
    EXPECT_EQ(Patterns().size(), 4u);
}

TEST_F(BrowserModeList, StoppingKeepsIt)
{
    SetMode('0');
    Load();
    const Program agent = computer_.StartProcess(L"C:\\agent.exe");
    const Program spooler = computer_.StartProcess(L"C:\\Windows\\spoolsv.exe");
    EXPECT_EQ(agent.StopDriver(), STATUS_SUCCESS);
    EXPECT_TRUE(IsBrowserModeActive());
    EXPECT_TRUE(IsIn(spooler));
}

// Allocations of a build: the value, its text, the two folders, the product path, then per pattern an entry and a copy.
TEST_F(BrowserModeList, AFailedAllocationLeavesItUnbuiltAndTheNextAttemptAddsAgain)
{
    SetMode('0');
    Load();
    BRPLClear();
    for (uint64_t number = 3;; ++number)
    {
        Global.BrowserModeList.Built = FALSE;
        Global.BrowserModeActive = FALSE;
        FailRoutine("ExAllocatePoolWithTag", number);
        const NTSTATUS status = BRPLBuild();
        const bool failed = InjectedFailures() != 0;
        ResetFailures();
        if (!failed)
        {
            EXPECT_EQ(status, STATUS_SUCCESS);
            EXPECT_EQ(number, 13u);
            break;
        }
        EXPECT_EQ(status, STATUS_INSUFFICIENT_RESOURCES) << number;
        EXPECT_TRUE(IsBrowserModeActive());
        EXPECT_FALSE(Global.BrowserModeList.Built);
        const size_t added = number < 5 ? 0 : (number - 5) / 2;
        EXPECT_EQ(Patterns().size(), added) << number;
        // What is there stays, and comes once more.
        EXPECT_EQ(BRPLBuild(), STATUS_SUCCESS);
        EXPECT_EQ(Patterns().size(), added + 4) << number;
        BRPLClear();
    }
}

TEST_F(BrowserModeList, DataFolderAndWhatIsBelowIt)
{
    Load();
    EXPECT_FALSE(IsData(L"\\Device\\V\\ProgramData\\Orvane Skylet Pro"));
    SetMode('0');
    ASSERT_EQ(BRPLBuild(), STATUS_SUCCESS);
    EXPECT_TRUE(IsData(L"\\Device\\V\\ProgramData\\Orvane Skylet Pro"));
    EXPECT_TRUE(IsData(L"\\device\\v\\PROGRAMDATA\\orvane skylet pro\\a\\b"));
    EXPECT_TRUE(IsData(L"\\Device\\V\\Sandbox\\ProgramData\\Orvane Skylet Pro\\a"));
    EXPECT_FALSE(IsData(L"\\Device\\V\\ProgramData\\Orvane Skylet Professional"));
    EXPECT_FALSE(IsData(L"\\Device\\V\\ProgramData"));
}

TEST_F(BrowserModeList, AProcessThatStartsIsTakenInByItsImage)
{
    SetMode('0');
    SetInstallFolder(L"C:\\Bay\\");
    Load();
    std::optional<Program> spooler;
    EXPECT_EQ(PrintsOf([&] { spooler.emplace(computer_.StartProcess(L"C:\\Windows\\SPOOLSV.exe")); }),
        Named({"[BRPL] Insert PID = " + std::to_string(spooler->ProcessId()) +
               " ProcName = C:\\Windows\\SPOOLSV.exe\n"}));
    EXPECT_TRUE(IsIn(*spooler));
    std::optional<Program> product;
    EXPECT_EQ(PrintsOf([&] { product.emplace(computer_.StartProcess(L"C:\\bay\\sub\\any.exe")); }),
        Named({"[BRPL] Insert PID = " + std::to_string(product->ProcessId()) + " ProcName = C:\\bay\\sub\\any.exe\n"}));
    std::optional<Program> other;
    EXPECT_THAT(PrintsOf([&] { other.emplace(computer_.StartProcess(L"C:\\Bayou\\any.exe")); }), IsEmpty());
    EXPECT_FALSE(IsIn(*other));
    const std::string gone = std::to_string(spooler->ProcessId());
    EXPECT_EQ(PrintsOf([&] { spooler->Exit(); }), Named({"[BRPL] Remove PID = " + gone + "\n"}));
    EXPECT_FALSE(IsIn(*spooler));
    EXPECT_THAT(PrintsOf([&] { other->Exit(); }), IsEmpty());
    EXPECT_TRUE(IsIn(*product));
}

TEST_F(BrowserModeList, WhileInactiveNobodyIsOffered)
{
    SetMode('1');
    Load();
    std::optional<Program> spooler;
    EXPECT_THAT(PrintsOf([&] { spooler.emplace(computer_.StartProcess(L"C:\\Windows\\spoolsv.exe")); }), IsEmpty());
    EXPECT_FALSE(IsIn(*spooler));
}

TEST_F(BrowserModeList, AProcessIsTakenInOnce)
{
    SetMode('0');
    Load();
    EXPECT_EQ(PrintsOf([&] { EXPECT_EQ(Insert(400, L"C:\\spoolsv.exe"), STATUS_SUCCESS); }),
        Named({"[BRPL] Insert PID = 400 ProcName = C:\\spoolsv.exe\n"}));
    EXPECT_THAT(PrintsOf([&] { EXPECT_EQ(Insert(400, L"C:\\splwow64.exe"), STATUS_SUCCESS); }), IsEmpty());
    EXPECT_THAT(Processes(), ElementsAre(ProcessIdHandle(400)));
    EXPECT_THAT(PrintsOf([&] { BRPLRemove(ProcessIdHandle(404)); }), IsEmpty());
    EXPECT_EQ(PrintsOf([&] { BRPLRemove(ProcessIdHandle(400)); }), Named({"[BRPL] Remove PID = 400\n"}));
    EXPECT_THAT(Processes(), IsEmpty());
    EXPECT_EQ(BRPLLookup(ProcessIdHandle(400)), STATUS_NOT_FOUND);
}

// The matching makes two copies per pattern; the entry is the allocation after those of the third pattern.
TEST_F(BrowserModeList, AnInsertWithoutMemoryIsPrinted)
{
    SetMode('0');
    Load();
    const UNICODE_STRING path = Counted(L"C:\\spoolsv.exe");
    uint64_t number = 1;
    for (; number < 20; ++number)
    {
        FailRoutine("ExAllocatePoolWithTag", number);
        NTSTATUS status = STATUS_SUCCESS;
        const Texts prints = PrintsOf([&] { status = BRPLInsert(ProcessIdHandle(400), &path); });
        ResetFailures();
        if (!NT_SUCCESS(status))
        {
            EXPECT_EQ(status, STATUS_INSUFFICIENT_RESOURCES);
            EXPECT_EQ(prints, Named({"application process information allocate error\n"}));
            EXPECT_THAT(Processes(), IsEmpty());
            return;
        }
        BRPLRemove(ProcessIdHandle(400));
    }
    FAIL() << "no allocation made the insertion fail";
}

TEST_F(BrowserModeList, AnAddedProcessSettingTakesItsRunningProcessesInWhateverThePatternsSay)
{
    SetMode('0');
    Load();
    const Program agent = computer_.StartProcess(L"C:\\agent.exe");
    const Program first = computer_.StartProcess(L"C:\\Apps\\Tool.exe");
    const Program other = computer_.StartProcess(L"C:\\Apps\\Other.exe");
    const Program second = computer_.StartProcess(L"C:\\Apps\\TOOL.EXE");
    auto brpl = [](const Texts& prints)
    {
        Texts found;
        for (const std::string& text : prints)
        {
            if (text.starts_with("[BRPL]"))
            {
                found.push_back(text);
            }
        }
        return found;
    };
    const std::string folder = " ProcName = \\Device\\HarddiskVolume1\\Apps\\";
    EXPECT_THAT(brpl(PrintsOf([&] { EXPECT_EQ(agent.AddProcess(L"C:\\apps\\tool.exe").Status, STATUS_SUCCESS); })),
        ElementsAre("[BRPL] ForcedInsert PID = " + std::to_string(first.ProcessId()) + folder + "Tool.exe\n",
            "[BRPL] ForcedInsert PID = " + std::to_string(second.ProcessId()) + folder + "TOOL.EXE\n"));
    EXPECT_TRUE(IsIn(first));
    EXPECT_TRUE(IsIn(second));
    EXPECT_FALSE(IsIn(other));
    // Again: they are there already.
    EXPECT_THAT(
        brpl(PrintsOf([&] { EXPECT_EQ(agent.AddProcess(L"C:\\Apps\\Tool.exe").Status, STATUS_SUCCESS); })), IsEmpty());
    // Settings for parents and exclusions do not concern this list.
    EXPECT_EQ(agent.AddParentProcess(L"C:\\Apps\\Other.exe").Status, STATUS_SUCCESS);
    EXPECT_EQ(agent.AddExclusion(L"C:\\Apps\\Other.exe").Status, STATUS_SUCCESS);
    EXPECT_FALSE(IsIn(other));
}

TEST_F(BrowserModeList, RegistrationWithoutArgumentsIsRefused)
{
    Load();
    ProcessSnapshot snapshot;
    ASSERT_EQ(snapshot.Take(), STATUS_SUCCESS);
    const UNICODE_STRING path = Counted(L"C:\\a.exe");
    EXPECT_EQ(BRPLRegistProcess(nullptr, &path), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(BRPLRegistProcess(snapshot.First(), nullptr), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(BRPLRegistProcess(snapshot.First(), &path), STATUS_SUCCESS);
    const UNICODE_STRING relative = Counted(L"a.exe");
    EXPECT_EQ(BRPLRegistProcess(snapshot.First(), &relative), STATUS_INVALID_PARAMETER);
}

// The setting's own scan asks for the link first, so the second question is this list's.
TEST_F(BrowserModeList, AFailedRegistrationFailsTheRequestAndTakesTheSettingBack)
{
    Load();
    const Program agent = computer_.StartProcess(L"C:\\agent.exe");
    FailRoutine("ZwOpenSymbolicLinkObject", 2);
    ControlAnswer answer;
    const Texts prints = PrintsOf([&] { answer = agent.AddProcess(L"C:\\Apps\\Tool.exe"); });
    EXPECT_EQ(InjectedFailures(), 1u);
    ResetFailures();
    EXPECT_EQ(answer.Status, STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_THAT(prints, testing::Contains("Tarnveil - BRPLRegistProcess error - c000009a\n"));
    const UNICODE_STRING path = Counted(L"C:\\Apps\\Tool.exe");
    ULONG id = 0;
    EXPECT_FALSE(FindSetting(ProcessNames, &path, &id));
}

TEST_F(BrowserModeList, NothingSurvivesAnUnload)
{
    SetMode('0');
    Load();
    const Program spooler = computer_.StartProcess(L"C:\\Windows\\spoolsv.exe");
    EXPECT_TRUE(IsIn(spooler));
    EXPECT_EQ(computer_.UnloadDriver(), STATUS_SUCCESS);
    computer_.Registry().DeleteKey(Machine::ProductKey);
    Load();
    EXPECT_FALSE(IsBrowserModeActive());
    EXPECT_THAT(Patterns(), IsEmpty());
    EXPECT_FALSE(IsIn(spooler));
}
}
}
