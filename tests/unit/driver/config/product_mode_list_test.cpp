// The product-mode list: what it makes of the sandbox folder, who is in it from the start, who comes later.

#include "driver/config/product_mode_list.h"

#include "driver/names/process_snapshot.h"
#include "tests/unit/driver/config/product_fixture.h"

namespace product_test
{
namespace
{
const Texts PatternTexts = {"[HBPL] Added SettingInfo = *\\HbWarden.exe\n",
    "[HBPL] Added SettingInfo = *\\HbWarden64.exe\n", "[HBPL] Added SettingInfo = *\\HbCore.exe\n",
    "[HBPL] Added SettingInfo = *\\HbKit.exe\n", "[HBPL] Added SettingInfo = *\\HbKit64.exe\n",
    "[HBPL] Added SettingInfo = *\\netsh.exe\n", "[HBPL] Added SettingInfo = *\\conhost.exe\n",
    "[HBPL] Added SettingInfo = *\\rundll32.exe\n"};
constexpr WideView Sandbox = L"\\Device\\HarddiskVolume1\\Bay\\S";

class ProductModeList : public ProductTest
{
protected:
    // The list's own texts.
    static Texts ListTexts(const Texts& prints)
    {
        Texts found;
        for (size_t i = 0; i < prints.size(); ++i)
        {
            if (prints[i].starts_with("[HBPL]") || prints[i].starts_with("application process"))
            {
                EXPECT_GT(i, 0u);
                EXPECT_EQ(prints[i - 1], "Tarnveil.sys: ");
                found.push_back(prints[i]);
            }
        }
        return found;
    }
    static Texts FolderTexts(const std::string& folder)
    {
        return {"[HBPL] HBFolder " + folder + "\n", "[HBPL] HBSubFolder " + folder + "\\*\n"};
    }
    static bool IsIn(const Program& program) { return NT_SUCCESS(HBPLLookup(program.Id())); }
    static std::string Inserted(const Program& program, const std::string& path)
    {
        return "[HBPL] Insert PID = " + std::to_string(program.ProcessId()) + " ProcName = " + path + "\n";
    }
    static bool IsProduct(WideView path)
    {
        const UNICODE_STRING name = Counted(path);
        return HBPLIsProductPath(&name);
    }
    size_t Patterns()
    {
        size_t count = 0;
        WithLock(Global.ProductModeList.Lock,
            [&]() REQUIRES_LOCK(Global.ProductModeList.Lock) { count = Global.ProductModeList.Settings.Count(); });
        return count;
    }
};

TEST_F(ProductModeList, BuiltBetweenTheSandboxFolderAndItsPrefix)
{
    SetSandbox(Sandbox);
    const Texts prints = LoadPrints();
    const Texts expected =
        Texts{"Tarnveil Driver Entry " + Narrow(Machine::ServiceKey) + "\n"} +
        Named({std::string("Failed to ZwOpenKey. Path = ") + ProductKeyText + " NTStatus = c0000034\n"}) +
        Texts{"Tarnveil - OS Version: 0x06010000\n", "SandboxCryptKey Query c0000034\n",
            "SandboxPath \\Device\\HarddiskVolume1\\Bay\\S\n"} +
        Named(FolderTexts("\\Device\\HarddiskVolume1\\Bay") + PatternTexts) +
        // The process that every system lists and nobody can look up.
        Texts{"PsLookupProcessByProcessId Failed: 0xC000000DL, ProcessId = 0\n",
            "PrefixSandboxPath \\Device\\HarddiskVolume1\\Bay\\S\\\n",
            "Tarnveil - ZwQueryValueKey ValueName = ProtectionFiles NTStatus = c0000034\n",
            "Create NT Device \\Device\\Tarnveil\n", "Tarnveil - IoCreateSymbolicLink success \\DosDevices\\Tarnveil\n",
            "Tarnveil DriverEntry return 0\n"};
    EXPECT_EQ(prints, expected);
    EXPECT_TRUE(Global.ProductModeList.Built);
}

TEST_F(ProductModeList, WithoutASandboxFolderItIsEmpty)
{
    EXPECT_THAT(ListTexts(LoadPrints()), IsEmpty());
    EXPECT_EQ(Patterns(), 0u);
    EXPECT_FALSE(IsProduct(L"\\Device\\HarddiskVolume1\\Bay"));
    const Program warden = computer_.StartProcess(L"C:\\Bay\\HbWarden.exe");
    EXPECT_FALSE(IsIn(warden));
}

TEST_F(ProductModeList, TheFolderIsTheSandboxWithoutItsLastTwoCharacters)
{
    SetSandbox(L"\\Device\\V\\Sandbox");
    EXPECT_EQ(ListTexts(LoadPrints()), FolderTexts("\\Device\\V\\Sandb") + PatternTexts);
    EXPECT_TRUE(IsProduct(L"\\device\\v\\SANDB"));
    EXPECT_TRUE(IsProduct(L"\\Device\\V\\Sandb\\x\\y"));
    EXPECT_FALSE(IsProduct(L"\\Device\\V\\Sandbo"));
    EXPECT_FALSE(IsProduct(L"\\Device\\V"));
}

TEST_F(ProductModeList, RunningProductProgramsAreInItFromTheStart)
{
    SetSandbox(Sandbox);
    const Program kit = computer_.StartProcess(L"C:\\Bay\\HbKit.exe");
    const Program other = computer_.StartProcess(L"C:\\Bay\\HbOther.exe");
    const Program console = computer_.StartProcess(L"C:\\Windows\\CONHOST.exe");
    const Texts texts = ListTexts(LoadPrints());
    const Texts inserted = {Inserted(kit, "\\Device\\HarddiskVolume1\\Bay\\HbKit.exe"),
        Inserted(console, "\\Device\\HarddiskVolume1\\Windows\\CONHOST.exe")};
    EXPECT_EQ(texts, FolderTexts("\\Device\\HarddiskVolume1\\Bay") + PatternTexts + inserted);
    EXPECT_TRUE(IsIn(kit));
    EXPECT_TRUE(IsIn(console));
    EXPECT_FALSE(IsIn(other));
}

TEST_F(ProductModeList, EveryPatternTakesItsProgram)
{
    SetSandbox(Sandbox);
    Load();
    for (const WideView name : {L"HbWarden.exe", L"HbWarden64.exe", L"HbCore.exe", L"HbKit.exe", L"HbKit64.exe",
             L"netsh.exe", L"conhost.exe", L"rundll32.exe", L"hbwarden.EXE"})
    {
        const WideString path = L"C:\\Some where\\" + WideString(name);
        std::optional<Program> program;
        const Texts texts = ListTexts(PrintsOf([&] { program.emplace(computer_.StartProcess(path)); }));
        EXPECT_THAT(texts, ElementsAre(Inserted(*program, Narrow(path))));
        EXPECT_TRUE(IsIn(*program));
        const std::string removed = "[HBPL] Remove PID = " + std::to_string(program->ProcessId()) + "\n";
        EXPECT_EQ(PrintsOf([&] { program->Exit(); }), Named({removed}));
        EXPECT_FALSE(IsIn(*program));
    }
    const Program other = computer_.StartProcess(L"C:\\HbWarden32.exe");
    EXPECT_FALSE(IsIn(other));
}

TEST_F(ProductModeList, AProcessIsTakenInOnce)
{
    SetSandbox(Sandbox);
    Load();
    const UNICODE_STRING path = Counted(L"C:\\netsh.exe");
    EXPECT_EQ(PrintsOf([&] { EXPECT_EQ(HBPLInsert(ProcessIdHandle(400), &path), STATUS_SUCCESS); }),
        Named({"[HBPL] Insert PID = 400 ProcName = C:\\netsh.exe\n"}));
    EXPECT_THAT(PrintsOf([&] { EXPECT_EQ(HBPLInsert(ProcessIdHandle(400), &path), STATUS_SUCCESS); }), IsEmpty());
    EXPECT_THAT(PrintsOf([&] { HBPLRemove(ProcessIdHandle(404)); }), IsEmpty());
    HBPLRemove(ProcessIdHandle(400));
    EXPECT_EQ(HBPLLookup(ProcessIdHandle(400)), STATUS_NOT_FOUND);
}

TEST_F(ProductModeList, BuildingAgainChangesNothing)
{
    SetSandbox(Sandbox);
    Load();
    EXPECT_THAT(PrintsOf([&] { EXPECT_EQ(HBPLBuild(Counted(L"\\Device\\V\\Other\\S")), STATUS_SUCCESS); }), IsEmpty());
    EXPECT_EQ(Patterns(), 8u);
    EXPECT_TRUE(IsProduct(L"\\Device\\HarddiskVolume1\\Bay"));
}

TEST_F(ProductModeList, AFailedLookAtTheProcessesLeavesItUnbuilt)
{
    SetSandbox(Sandbox);
    FailRoutine("ZwQuerySystemInformation", 1, true);
    const Texts prints = LoadPrints();
    ResetFailures();
    EXPECT_EQ(ListTexts(prints), FolderTexts("\\Device\\HarddiskVolume1\\Bay") + PatternTexts +
                                     Texts{"[HBPL] QuerySystemInformation error c000009a\n"});
    EXPECT_FALSE(Global.ProductModeList.Built);
    // The rest of the configuration is read all the same.
    EXPECT_EQ(Narrow(View(Global.PrefixSandboxPath)), "\\Device\\HarddiskVolume1\\Bay\\S\\");
    // So is the folder, and programs that come are taken in.
    EXPECT_TRUE(IsProduct(L"\\Device\\HarddiskVolume1\\Bay"));
    EXPECT_TRUE(IsIn(computer_.StartProcess(L"C:\\HbCore.exe")));
}

TEST_F(ProductModeList, AMissingSnapshotIsRefused)
{
    Load();
    EXPECT_EQ(PrintsOf([&] { EXPECT_EQ(HBPLRegistProcess(nullptr), STATUS_INVALID_PARAMETER); }),
        Named({"[HBPL] HBPLRegistProcess error - c000000d\n"}));
}

// A system whose first answer is a success has handed out nothing.
TEST_F(ProductModeList, AnAnswerWithoutProcessesIsPrinted)
{
    SetSandbox(Sandbox);
    SetSystemQueryHook([](ULONG kind, ULONG) -> std::optional<QueryAnswer>
        { return kind == 5 ? std::optional(QueryAnswer{STATUS_SUCCESS, 0}) : std::nullopt; });
    const Texts texts = ListTexts(LoadPrints());
    EXPECT_EQ(texts.back(), "[HBPL] HBPLRegistProcess error - c000000d\n");
    EXPECT_FALSE(Global.ProductModeList.Built);
}

TEST_F(ProductModeList, AProcessThatIsGoneBeforeItsImageIsAskedForIsPassedOver)
{
    SetSandbox(Sandbox);
    const Program gone = computer_.StartProcess(L"C:\\Bay\\HbKit.exe");
    const Program stays = computer_.StartProcess(L"C:\\Bay\\HbKit64.exe");
    computer_.ExitAtLookup(gone);
    Load();
    EXPECT_FALSE(IsIn(gone));
    EXPECT_TRUE(IsIn(stays));
    EXPECT_TRUE(Global.ProductModeList.Built);
}

// Nothing can be cut off such a path; it makes no folder and is no reason to go without the programs.
TEST_F(ProductModeList, ASandboxOfLessThanTwoCharactersHasNoProductFolder)
{
    const std::vector<UCHAR> zeros(10);
    computer_.Registry().SetBinary(Machine::ServiceKey, L"SandboxPath", zeros);
    EXPECT_EQ(ListTexts(LoadPrints()), PatternTexts);
    EXPECT_FALSE(IsProduct(L""));
    EXPECT_FALSE(IsProduct(L"\\Device\\HarddiskVolume1\\Bay"));
    EXPECT_EQ(Patterns(), 8u);
}

TEST_F(ProductModeList, EachFailedAllocationOfTheBuildEndsIt)
{
    Load();
    const UNICODE_STRING sandbox = Counted(Sandbox);
    uint64_t number = 1;
    for (; number < 400; ++number)
    {
        FailRoutine("ExAllocatePoolWithTag", number);
        const NTSTATUS status = HBPLBuild(sandbox);
        const bool failed = InjectedFailures() != 0;
        ResetFailures();
        EXPECT_EQ(Global.ProductModeList.Built != FALSE, NT_SUCCESS(status)) << number;
        if (!failed)
        {
            EXPECT_EQ(status, STATUS_SUCCESS);
            break;
        }
        // Two folders, and an entry and a copy per pattern, are indispensable; a process can be passed over.
        EXPECT_EQ(status == STATUS_INSUFFICIENT_RESOURCES, number <= 19) << number;
        HBPLClear();
        Global.ProductModeList.Built = FALSE;
    }
    EXPECT_GT(number, 19u);
    EXPECT_LT(number, 400u);
}

TEST_F(ProductModeList, NothingSurvivesAnUnload)
{
    SetSandbox(Sandbox);
    Load();
    const Program kit = computer_.StartProcess(L"C:\\HbKit.exe");
    EXPECT_TRUE(IsIn(kit));
    EXPECT_EQ(computer_.UnloadDriver(), STATUS_SUCCESS);
    computer_.Registry().DeleteValue(Machine::ServiceKey, L"SandboxPath");
    Load();
    EXPECT_FALSE(IsIn(kit));
    EXPECT_EQ(Patterns(), 0u);
    EXPECT_FALSE(IsProduct(L"\\Device\\HarddiskVolume1\\Bay"));
}
}
}
