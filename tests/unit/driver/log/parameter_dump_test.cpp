// The dump of the configuration, line by line, and what becomes of it when something fails.

#include "driver/log/parameter_dump.h"

#include "hosted/ps/query_hooks.h"
#include "tests/unit/driver/log/mailslot_fixture.h"

namespace agent_test
{
namespace
{
class ParameterDump : public MailslotTestBase
{
protected:
    // A key, a sandbox, two of every kind of setting, two parents, three processes, two protections, a cached name.
    void Configure()
    {
        ASSERT_EQ(machine_.UnloadDriver(), STATUS_SUCCESS);
        machine_.Registry().SetString(Machine::ServiceKey, L"SandboxPath", L"\\Device\\HarddiskVolume1\\Bay\\Sandbox");
        ASSERT_EQ(machine_.LoadDriver(Image::Native), STATUS_SUCCESS);
        ASSERT_EQ(agent_.SetCryptKey("0123456789abcdef", 0x5a), STATUS_SUCCESS);
        for (const WideView path : {L"C:\\Apps\\Launcher.exe", L"C:\\Apps\\Shell.exe"})
        {
            ASSERT_EQ(agent_.AddParentProcess(path).Status, STATUS_SUCCESS);
        }
        for (const WideView path : {L"C:\\Apps\\Editor.exe", L"C:\\Apps\\Viewer.exe"})
        {
            ASSERT_EQ(agent_.AddProcess(path).Status, STATUS_SUCCESS);
        }
        for (const WideView path : {L"C:\\Apps\\Never.exe", L""})
        {
            ASSERT_EQ(agent_.AddExclusion(path).Status, STATUS_SUCCESS);
        }
        launcher_.emplace(machine_.StartProcess(L"C:\\Apps\\Launcher.exe"));
        shell_.emplace(machine_.StartProcess(L"C:\\Apps\\Shell.exe"));
        editor_.emplace(machine_.StartProcess(L"C:\\Apps\\Editor.exe"));
        child_.emplace(launcher_->Start(L"C:\\Apps\\Tool.exe"));
        viewer_.emplace(machine_.StartProcess(L"C:\\Apps\\Viewer.exe"));
        ASSERT_EQ(agent_.AddFileProtection(100, L"C:\\Data\\*.doc").Status, STATUS_SUCCESS);
        ASSERT_EQ(agent_.AddFileProtection(200, L"C:\\Data\\*.doc").Status, STATUS_SUCCESS);
        const ULONG gone = agent_.AddFileProtection(300, L"C:\\secret").Value;
        ASSERT_EQ(agent_.DelFileProtection(gone), STATUS_SUCCESS);
        const UNICODE_STRING key = Counted(L"C:\\PROGRA~1");
        const UNICODE_STRING element = Counted(L"C:\\Program Files");
        ASSERT_EQ(CTInsertElement(&Global.ProcessCache, &key, &element, 0), STATUS_SUCCESS);
        machine_.ClearDebugPrints();
    }

    std::string Line(const char* level, const std::string& name, const std::string& message)
    {
        const std::string who = "[" + name + " (" + std::to_string(agent_.ProcessId()) + ")]";
        return std::string("0|") + LocalTime + " " + who + " tid=" + std::to_string(thread_) + " Tarnveil : " + level +
               " " + who + " " + message + "\r\n";
    }
    std::string Header(const std::string& message) { return Line("Trace", "agent.exe", message); }
    static std::string Pid(const Program& program) { return "PID = " + std::to_string(program.ProcessId()); }

    // A line of the dump, and whether it is an item of a list.
    struct Expected
    {
        bool Item;
        std::string Message;
    };
    std::vector<Expected> WholeDump()
    {
        return {{false, "IRP = DEV_CTRL IOCTL = OUTPUT_PARAM"},
            {false, "Param : RegPath = " + Narrow(Machine::ServiceKey)},
            {false, "Param : Length = 16 Key = Exists Xor = Exists Encryption = Enable"},
            {false, "Param : SandboxPath = \\Device\\HarddiskVolume1\\Bay\\Sandbox"},
            {false, "Param : PrefixSandboxPath = \\Device\\HarddiskVolume1\\Bay\\Sandbox\\"},
            {false, "Param : ParentName : Count = 2"}, {true, "Param : ParentName : C:\\Apps\\Launcher.exe"},
            {true, "Param : ParentName : C:\\Apps\\Shell.exe"}, {false, "Param : ProcessName : Count = 2"},
            {true, "Param : ProcessName : C:\\Apps\\Editor.exe"}, {true, "Param : ProcessName : C:\\Apps\\Viewer.exe"},
            {false, "Param : ExcProcName : Count = 2"}, {true, "Param : ExcProcName : C:\\Apps\\Never.exe"},
            {true, "Param : ExcProcName : "}, {false, "Param : Parent : Count = 2"},
            {true, "Param : Parent : " + Pid(*launcher_)}, {true, "Param : Parent : " + Pid(*shell_)},
            {false, "Param : Child : Count = 3"}, {true, "Param : Child : " + Pid(*editor_)},
            {true, "Param : Child : " + Pid(*child_)}, {true, "Param : Child : " + Pid(*viewer_)},
            {false, "Param : Protection : FilePath = \\Device\\HarddiskVolume1\\Data\\*.doc Count = 2"},
            {true, "Param : Protection : PID = 100"}, {true, "Param : Protection : PID = 200"},
            {false, "Param : Protection : FilePath = \\Device\\HarddiskVolume1\\secret Count = 0"},
            {false, "Param : Cache : Process : Count = 1"}};
    }
    Texts WholeLines(bool items)
    {
        Texts lines;
        for (const Expected& line : WholeDump())
        {
            if (items || !line.Item)
            {
                lines.push_back(Line(line.Item ? "Info" : "Trace", "agent.exe", line.Message));
            }
        }
        return lines;
    }
    // The lines of an idle driver, without any registry value of its own.
    Texts EmptyLines()
    {
        Texts lines;
        for (const std::string& message :
            {std::string("IRP = DEV_CTRL IOCTL = OUTPUT_PARAM"), "Param : RegPath = " + Narrow(Machine::ServiceKey),
                std::string("Param : Length = 0 Key = Empty Xor = Empty Encryption = Enable"),
                std::string("Param : SandboxPath = (null)"), std::string("Param : PrefixSandboxPath = (null)"),
                std::string("Param : ParentName : Count = 0"), std::string("Param : ProcessName : Count = 0"),
                std::string("Param : ExcProcName : Count = 0"), std::string("Param : Parent : Count = 0"),
                std::string("Param : Child : Count = 0"), std::string("Param : Cache : Process : Count = 0")})
        {
            lines.push_back(Header(message));
        }
        return lines;
    }
    std::string StatusMessage(const char* status) const
    {
        return std::string("IRP = DEV_CTRL IOCTL = OUTPUT_PARAM status = ") + status;
    }
    // Every request runs on a thread of its own; between the open and the first line the process's name is looked for.
    Texts Dump()
    {
        SetSystemQueryHook(
            [this](ULONG, ULONG) -> std::optional<QueryAnswer>
            {
                thread_ = ProcessIdNumber(PsGetCurrentThreadId());
                if (closeAfterOpen_)
                {
                    reader_->Close();
                }
                return std::nullopt;
            });
        return PrintsOf([&] { EXPECT_EQ(agent_.OutputCurrentParam(), STATUS_SUCCESS); });
    }
    static Texts Flags(const char* flags)
    {
        return {
            "Tarnveil - IOCTL_OUTPUT_CURRENT_PARAM\n", "Tarnveil.sys: ", std::string("DebugLogFlags ") + flags + "\n"};
    }
    static Texts Then(Texts prints, const Texts& more)
    {
        prints.insert(prints.end(), more.begin(), more.end());
        return prints;
    }

    ULONG thread_ = 0;
    bool closeAfterOpen_ = false;
    std::optional<Program> launcher_;
    std::optional<Program> shell_;
    std::optional<Program> editor_;
    std::optional<Program> child_;
    std::optional<Program> viewer_;
};

TEST_F(ParameterDump, EverythingWithoutItems)
{
    Configure();
    SetLevel(0x00000000);
    EXPECT_EQ(Dump(), Flags("0x40"));
    EXPECT_EQ(Lines(), WholeLines(false));
}

TEST_F(ParameterDump, EverythingWithItems)
{
    Configure();
    SetLevel(0x00000100);
    EXPECT_EQ(Dump(), Flags("0x41"));
    EXPECT_EQ(Lines(), WholeLines(true));
}

TEST_F(ParameterDump, OnlyTheLowestFlagBringsItems)
{
    Configure();
    SetLevel(0x0000feff);
    EXPECT_EQ(Dump(), Flags("0xfe"));
    EXPECT_EQ(Lines(), WholeLines(false));
}

TEST_F(ParameterDump, EmptyListsHaveTheirHeaders)
{
    SetLevel(0x4100);
    EXPECT_EQ(Dump(), Flags("0x41"));
    EXPECT_EQ(Lines(), EmptyLines());
}

TEST_F(ParameterDump, KeyStateIsToldAndNotTheKey)
{
    SetLevel(0);
    EXPECT_EQ(agent_.SetCryptKey(std::string(32, '\0'), 0), STATUS_SUCCESS);
    EXPECT_EQ(agent_.SetEncryption(0), STATUS_SUCCESS);
    Dump();
    EXPECT_EQ(Lines()[2], Header("Param : Length = 32 Key = Empty Xor = Empty Encryption = Disable"));
    EXPECT_EQ(agent_.SetEncryption(7), STATUS_SUCCESS);
    Global.CryptKey[31] = 1;
    Dump();
    EXPECT_EQ(Lines()[2], Header("Param : Length = 32 Key = Exists Xor = Empty Encryption = Enable"));
    Global.CryptKey[31] = 0;
    Global.XorByte = 1;
    Dump();
    EXPECT_EQ(Lines()[2], Header("Param : Length = 32 Key = Empty Xor = Exists Encryption = Enable"));
}

TEST_F(ParameterDump, WithoutTheFlagsNothingIsWritten)
{
    EXPECT_THAT(Dump(), ElementsAre("Tarnveil - IOCTL_OUTPUT_CURRENT_PARAM\n", "Tarnveil.sys: ",
                            std::string("ZwOpenKey failed. Path = ") + ProductKeyText + " NTStatus = c0000034\n",
                            "Tarnveil.sys: ", "GetDebugLogFlags failed.\n"));
    machine_.Registry().CreateKey(Machine::ProductKey);
    EXPECT_THAT(Dump(), ElementsAre("Tarnveil - IOCTL_OUTPUT_CURRENT_PARAM\n",
                            "Tarnveil.sys: ", "ZwQueryValueKey ValueName = DebugLogLevel NTStatus = c0000034\n",
                            "Tarnveil.sys: ", "GetDebugLogFlags failed.\n"));
    EXPECT_THAT(Lines(), IsEmpty());
    EXPECT_EQ(OutputParameters(), STATUS_OBJECT_NAME_NOT_FOUND);
}

TEST_F(ParameterDump, FlagsOfAnotherTypeStillWriteTheHeaders)
{
    machine_.Registry().SetString(Machine::ProductKey, L"DebugLogLevel", L"AAAA");
    EXPECT_THAT(Dump(), ElementsAre("Tarnveil - IOCTL_OUTPUT_CURRENT_PARAM\n",
                            "Tarnveil.sys: ", "REG_XXX type = 00000001\n", "Tarnveil.sys: ", "DebugLogFlags 0x40\n"));
    EXPECT_EQ(Lines(), EmptyLines());
}

TEST_F(ParameterDump, WithoutAMailslotOnlyTheFailureIsAttempted)
{
    SetLevel(0x4100);
    reader_.reset();
    EXPECT_EQ(
        Dump(), Then(Flags("0x41"),
                    {"Tarnveil.sys: ",
                        "ZwOpenFile failed. ObjectName = \\Device\\mailslot\\OrvaneSandbox_Dbg NTStatus = "
                        "c0000034\n",
                        "Tarnveil.sys: ", "ZwWriteFile failed. Mailslot = 0000000000000000 NTStatus = c0000008\n"}));
    EXPECT_EQ(OutputParameters(), STATUS_OBJECT_NAME_NOT_FOUND);
}

TEST_F(ParameterDump, AReaderThatGoesAfterTheOpenMakesEveryLineFail)
{
    SetLevel(0x4000);
    closeAfterOpen_ = true;
    const Texts prints = Dump();
    ASSERT_EQ(prints.size(), 3 + 2 * EmptyLines().size());
    for (size_t i = 3; i < prints.size(); i += 2)
    {
        EXPECT_EQ(prints[i], "Tarnveil.sys: ");
        EXPECT_TRUE(prints[i + 1].starts_with("ZwWriteFile failed. Mailslot = "));
        EXPECT_TRUE(prints[i + 1].ends_with(" NTStatus = c00000b6\n"));
    }
}

TEST_F(ParameterDump, ALineThatCannotBeWrittenDoesNotEndTheDump)
{
    SetLevel(0x4000);
    for (size_t number = 1; number <= EmptyLines().size(); ++number)
    {
        FailRoutine("ZwWriteFile", number);
        const Texts prints = Dump();
        ResetFailures();
        ASSERT_EQ(prints.size(), 5u);
        EXPECT_TRUE(prints[4].starts_with("ZwWriteFile failed. Mailslot = "));
        Texts expected = EmptyLines();
        expected.erase(expected.begin() + static_cast<ptrdiff_t>(number) - 1);
        EXPECT_EQ(Lines(), expected);
    }
}

TEST_F(ParameterDump, WithoutTheProcessNameOnlyTheFailureIsWritten)
{
    SetLevel(0x4100);
    FailRoutine("ZwQuerySystemInformation", 2);
    EXPECT_EQ(Dump(), Then(Flags("0x41"), {"[DlExtFunc] QuerySystemInformation failed : non-mismatch C000009A\n",
                                              "Tarnveil.sys: ", "Cannot resolve process name.\n"}));
    ResetFailures();
    EXPECT_THAT(Lines(), ElementsAre(Line("Trace", "(null)", StatusMessage("0xC000009AL"))));
}

// Every allocation of the dump fails once: a line's, which is then missing; a copy's, which ends the dump.
TEST_F(ParameterDump, EachFailedAllocationCostsALineOrEndsTheDump)
{
    Configure();
    SetLevel(0x4100);
    const size_t wholeSize = WholeLines(true).size();
    std::map<std::string, int> ends;
    size_t missing = 0;
    uint64_t number = 1;
    for (; number < 200; ++number)
    {
        FailRoutine("ExAllocatePoolWithTag", number);
        const Texts prints = Dump();
        const bool failed = InjectedFailures() != 0;
        ResetFailures();
        const Texts lines = Lines();
        const Texts whole = WholeLines(true);
        if (!failed)
        {
            EXPECT_EQ(lines, whole);
            break;
        }
        ASSERT_GE(prints.size(), 3u) << number;
        const bool ended = prints.size() > 3;
        if (!ended)
        {
            // One line less, the others as they are.
            ASSERT_EQ(lines.size(), whole.size() - 1) << number;
            EXPECT_TRUE(std::ranges::includes(std::multiset<std::string>(whole.begin(), whole.end()),
                std::multiset<std::string>(lines.begin(), lines.end())))
                << number;
            ++missing;
            continue;
        }
        ++ends[prints.back()];
        EXPECT_EQ(prints[prints.size() - 2], "Tarnveil.sys: ");
        if (prints.back() == "GetDebugLogFlags failed.\n")
        {
            EXPECT_THAT(lines, IsEmpty());
            continue;
        }
        ASSERT_FALSE(lines.empty()) << number;
        const char* name = prints.back() == "Cannot resolve process name.\n" ? "(null)" : "agent.exe";
        EXPECT_EQ(lines.back(), Line("Trace", name, StatusMessage("0xC000009AL"))) << number;
        EXPECT_TRUE(std::equal(lines.begin(), lines.end() - 1, whole.begin())) << number;
    }
    EXPECT_LT(number, 200u);
    EXPECT_EQ(missing, wholeSize);
    // The array and a name per setting with one; the arrays of the parents and of the children; the one array of
    // allowed processes that is not empty; the snapshot and the name.
    const std::map<std::string, int> expected = {{"GetDebugLogFlags failed.\n", 1},
        {"Cannot resolve process name.\n", 2}, {"DuplicateProcessNameList failed.\n", 3 + 5},
        {"DuplicateMonProcList failed.\n", 2}, {"DuplicateAllowedProcessList failed.\n", 1}};
    EXPECT_EQ(ends, expected);
}

TEST_F(ParameterDump, EveryKindOfCallFailsOnce)
{
    Configure();
    SetLevel(0x4100);
    ResetFailures();
    for (uint64_t number = 1; number < 400; ++number)
    {
        FailNthCall(number);
        Dump();
        const bool failed = InjectedFailures() != 0;
        ResetFailures();
        Lines();
        if (!failed)
        {
            EXPECT_GT(number, 50u);
            return;
        }
    }
    FAIL() << "the dump never came to its end";
}

TEST_F(ParameterDump, TwoDumpsLeaveTheSameLines)
{
    Configure();
    SetLevel(0x4100);
    Dump();
    const Texts first = WholeLines(true);
    Dump();
    EXPECT_EQ(Lines(), Then(first, WholeLines(true)));
}
}
}
