// The lines of the debug mailslot and the flags that select them.

#include "driver/log/debug_mailslot.h"

#include "hosted/ke/irql.h"
#include "tests/unit/driver/log/mailslot_fixture.h"

namespace agent_test
{
namespace
{
class DebugMailslot : public MailslotTestBase
{
protected:
    void SetUp() override
    {
        MailslotTestBase::SetUp();
        UNICODE_STRING name = Counted(MailslotPath);
        OBJECT_ATTRIBUTES attributes;
        InitializeObjectAttributes(&attributes, &name, OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, nullptr, nullptr);
        IO_STATUS_BLOCK result;
        ASSERT_EQ(ZwOpenFile(&mailslot_, GENERIC_WRITE, &attributes, &result, FILE_SHARE_READ | FILE_SHARE_WRITE,
                      FILE_NON_DIRECTORY_FILE),
            STATUS_SUCCESS);
        machine_.ClearDebugPrints();
    }
    void TearDown() override
    {
        EXPECT_EQ(ZwClose(mailslot_), STATUS_SUCCESS);
        MailslotTestBase::TearDown();
    }
    NTSTATUS Write(ULONG level, ULONG flags)
    {
        return WriteDebugMailslot(level, flags, mailslot_, 4312, 4420, L"HbWarden64.exe", L"hello\r\n");
    }
    static std::string Line(const char* level, const std::string& message)
    {
        return std::string("0|") + LocalTime + " [HbWarden64.exe (4312)] tid=4420 Tarnveil : " + level +
               " [HbWarden64.exe (4312)] " + message;
    }

    HANDLE mailslot_ = nullptr;
};

TEST_F(DebugMailslot, ALineIsHeaderAndMessage)
{
    const UNICODE_STRING counted = Counted(L"\\Device\\V");
    EXPECT_EQ(WriteDebugMailslot(0x40, 0x40, mailslot_, 4312, 4420, L"HbWarden64.exe", L"%s %s = %wZ %d 0x%08XL\r\n",
                  L"Param :", L"Path", &counted, 7, STATUS_ACCESS_DENIED),
        STATUS_SUCCESS);
    EXPECT_THAT(Lines(), ElementsAre(Line("Trace", "Param : Path = \\Device\\V 7 0xC0000022L\r\n")));
    EXPECT_THAT(machine_.DebugPrints(), IsEmpty());
}

TEST_F(DebugMailslot, LevelsHaveTheirNames)
{
    struct Case
    {
        ULONG Level;
        const char* Name;
    };
    for (const Case& row :
        {Case{0x01, "Info"}, {0x02, "Info"}, {0x04, "Warn"}, {0x08, "Warn"}, {0x10, "Error"}, {0x20, "Error"},
            {0x40, "Trace"}, {0x0c, "Warn"}, {0x7f, "Info"}, {0x50, "Error"}, {0xc0, "Trace"}, {0x80000001, "Info"}})
    {
        EXPECT_EQ(Write(row.Level, row.Level), STATUS_SUCCESS);
        EXPECT_THAT(Lines(), ElementsAre(Line(row.Name, "hello\r\n"))) << row.Level;
    }
}

TEST_F(DebugMailslot, LevelAndFlagsNeedABitInCommon)
{
    EXPECT_EQ(Write(0x40, 0x02), STATUS_SUCCESS);
    EXPECT_EQ(Write(0x40, 0x3f), STATUS_SUCCESS);
    EXPECT_EQ(Write(0x40, 0), STATUS_SUCCESS);
    EXPECT_EQ(Write(0, 0xffffffff), STATUS_SUCCESS);
    EXPECT_THAT(Lines(), IsEmpty());
    EXPECT_EQ(Write(0x0c, 0x08), STATUS_SUCCESS);
    EXPECT_THAT(Lines(), ElementsAre(Line("Warn", "hello\r\n")));
}

TEST_F(DebugMailslot, ALevelWithoutANameMakesNoLine)
{
    for (const ULONG level : {0x80u, 0x100u, 0x80000000u, 0xffffff80u})
    {
        EXPECT_EQ(Write(level, 0xffffffff), STATUS_SUCCESS);
    }
    EXPECT_THAT(Lines(), IsEmpty());
}

TEST_F(DebugMailslot, AboveThePassiveLevelNothingIsWritten)
{
    for (const KIRQL level : {APC_LEVEL, DISPATCH_LEVEL})
    {
        const RaisedIrql raised(level);
        EXPECT_EQ(Write(0x40, 0x40), STATUS_SUCCESS);
    }
    EXPECT_THAT(Lines(), IsEmpty());
}

TEST_F(DebugMailslot, LocalTimeIsShownWithItsZeros)
{
    machine_.SetTime(InitialSystemTime - 3600 * Second);
    EXPECT_EQ(Write(0x40, 0x40), STATUS_SUCCESS);
    machine_.SetTime(InitialSystemTime - 3600 * Second - 1);
    EXPECT_EQ(Write(0x40, 0x40), STATUS_SUCCESS);
    const Texts lines = Lines();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].substr(0, 22), "0|2024/01/01 00:00:00 ");
    EXPECT_EQ(lines[1].substr(0, 22), "0|2023/12/31 23:59:59 ");
}

TEST_F(DebugMailslot, AMissingNamePrintsAsTheFormatterShowsIt)
{
    EXPECT_EQ(WriteDebugMailslot(0x40, 0x40, mailslot_, 0, 0, nullptr, L"x\r\n"), STATUS_SUCCESS);
    EXPECT_THAT(Lines(),
        ElementsAre(std::string("0|") + LocalTime + " [(null) (0)] tid=0 Tarnveil : Trace [(null) (0)] x\r\n"));
}

TEST_F(DebugMailslot, IdsPrintSigned)
{
    EXPECT_EQ(WriteDebugMailslot(0x40, 0x40, mailslot_, 0xffffffff, 0x80000000, L"a", L"x"), STATUS_SUCCESS);
    EXPECT_THAT(
        Lines(), ElementsAre(std::string("0|") + LocalTime + " [a (-1)] tid=-2147483648 Tarnveil : Trace [a (-1)] x"));
}

// 40960 bytes are 20480 characters, one of them the terminator.
TEST_F(DebugMailslot, AMessageThatDoesNotFitIsLeftOutWhole)
{
    const size_t room = 20480 - Line("Trace", "").size() - 1;
    for (const size_t length : {room - 1, room, room + 1, room + 2, size_t{60000}})
    {
        const WideString message(length, L'm');
        EXPECT_EQ(WriteDebugMailslot(0x40, 0x40, mailslot_, 4312, 4420, L"HbWarden64.exe", L"%s", message.c_str()),
            STATUS_SUCCESS);
        EXPECT_THAT(Lines(), ElementsAre(Line("Trace", length <= room ? std::string(length, 'm') : ""))) << length;
    }
}

TEST_F(DebugMailslot, AHeaderThatDoesNotFitMakesNoLine)
{
    const WideString name(20480, L'n');
    EXPECT_EQ(WriteDebugMailslot(0x40, 0x40, mailslot_, 1, 2, name.c_str(), L"x"), STATUS_BUFFER_OVERFLOW);
    EXPECT_THAT(Lines(), IsEmpty());
    EXPECT_THAT(machine_.DebugPrints(), IsEmpty());
}

TEST_F(DebugMailslot, WithoutMemoryNothingIsPrinted)
{
    FailRoutine("ExAllocatePoolWithTag");
    EXPECT_EQ(Write(0x40, 0x40), STATUS_INSUFFICIENT_RESOURCES);
    ResetFailures();
    EXPECT_THAT(Lines(), IsEmpty());
    EXPECT_THAT(machine_.DebugPrints(), IsEmpty());
}

TEST_F(DebugMailslot, AFailedWriteIsPrintedAndReturned)
{
    char pointer[32];
    std::snprintf(
        pointer, sizeof(pointer), "%016llX", static_cast<unsigned long long>(reinterpret_cast<ULONG_PTR>(mailslot_)));
    FailRoutine("ZwWriteFile");
    EXPECT_EQ(Write(0x40, 0x40), STATUS_INSUFFICIENT_RESOURCES);
    ResetFailures();
    EXPECT_THAT(machine_.DebugPrints(), ElementsAre("Tarnveil.sys: ", std::string("ZwWriteFile failed. Mailslot = ") +
                                                                          pointer + " NTStatus = c000009a\n"));
    reader_.reset();
    machine_.ClearDebugPrints();
    EXPECT_EQ(Write(0x40, 0x40), STATUS_FILE_FORCED_CLOSED);
    EXPECT_THAT(machine_.DebugPrints(), ElementsAre("Tarnveil.sys: ", std::string("ZwWriteFile failed. Mailslot = ") +
                                                                          pointer + " NTStatus = c00000b6\n"));
}

TEST_F(DebugMailslot, WithoutAHandleTheWriteFails)
{
    EXPECT_EQ(WriteDebugMailslot(0x40, 0x40, nullptr, 1, 2, L"a", L"x"), STATUS_INVALID_HANDLE);
    EXPECT_THAT(machine_.DebugPrints(),
        ElementsAre("Tarnveil.sys: ", "ZwWriteFile failed. Mailslot = 0000000000000000 NTStatus = c0000008\n"));
}

struct FlagCase
{
    ULONG Value;
    ULONG Flags;
};

TEST_F(DebugMailslot, FlagsAreTheSecondLowestByte)
{
    for (const FlagCase& row : {FlagCase{0x00000040, 0x00}, {0x00004000, 0x40}, {0x0000c3ff, 0xc3}, {0x00004100, 0x41},
             {0x000000ff, 0x00}, {0xffff00ff, 0x00}, {0xffffffff, 0xff}})
    {
        SetLevel(row.Value);
        ULONG flags = 0xffffffff;
        EXPECT_EQ(GetDebugLogFlags(&flags), STATUS_SUCCESS);
        EXPECT_EQ(flags, row.Flags) << row.Value;
    }
    EXPECT_THAT(machine_.DebugPrints(), IsEmpty());
}

TEST_F(DebugMailslot, FlagsWithoutTheKey)
{
    ULONG flags = 0xffffffff;
    EXPECT_EQ(GetDebugLogFlags(&flags), STATUS_OBJECT_NAME_NOT_FOUND);
    EXPECT_EQ(flags, 0u);
    EXPECT_THAT(machine_.DebugPrints(), ElementsAre("Tarnveil.sys: ", std::string("ZwOpenKey failed. Path = ") +
                                                                          ProductKeyText + " NTStatus = c0000034\n"));
}

TEST_F(DebugMailslot, FlagsWithoutTheValue)
{
    machine_.Registry().CreateKey(Machine::ProductKey);
    ULONG flags = 0xffffffff;
    EXPECT_EQ(GetDebugLogFlags(&flags), STATUS_OBJECT_NAME_NOT_FOUND);
    EXPECT_EQ(flags, 0u);
    EXPECT_THAT(machine_.DebugPrints(),
        ElementsAre("Tarnveil.sys: ", "ZwQueryValueKey ValueName = DebugLogLevel NTStatus = c0000034\n"));
}

TEST_F(DebugMailslot, FlagsOfAnotherTypeAreNone)
{
    machine_.Registry().SetString(Machine::ProductKey, L"DebugLogLevel", L"AAAA");
    ULONG flags = 0xffffffff;
    EXPECT_EQ(GetDebugLogFlags(&flags), STATUS_SUCCESS);
    EXPECT_EQ(flags, 0u);
    EXPECT_THAT(machine_.DebugPrints(), ElementsAre("Tarnveil.sys: ", "REG_XXX type = 00000001\n"));
}

TEST_F(DebugMailslot, FlagsWithoutDataAreNone)
{
    machine_.Registry().SetValue(Machine::ProductKey, L"DebugLogLevel", REG_DWORD, {});
    ULONG flags = 0xffffffff;
    EXPECT_EQ(GetDebugLogFlags(&flags), STATUS_SUCCESS);
    EXPECT_EQ(flags, 0u);
    EXPECT_THAT(machine_.DebugPrints(), ElementsAre("Tarnveil.sys: ", "DataLength = Zero\n"));
}

TEST_F(DebugMailslot, FlagsFailStepByStep)
{
    SetLevel(0x4100);
    struct Case
    {
        const char* Routine;
        uint64_t Number;
        NTSTATUS Status;
        std::string Print;
    };
    const std::string query = "ZwQueryValueKey ValueName = DebugLogLevel NTStatus = c000009a\n";
    for (const Case& row : {Case{"ZwOpenKey", 1, STATUS_INSUFFICIENT_RESOURCES,
                                std::string("ZwOpenKey failed. Path = ") + ProductKeyText + " NTStatus = c000009a\n"},
             Case{"ZwQueryValueKey", 1, STATUS_INSUFFICIENT_RESOURCES, query},
             // The status that told the size.
             Case{"ExAllocatePoolWithTag", 1, STATUS_BUFFER_TOO_SMALL, "DebugLogFlag allocate error\n"},
             Case{"ZwQueryValueKey", 2, STATUS_INSUFFICIENT_RESOURCES, query}})
    {
        FailRoutine(row.Routine, row.Number);
        ULONG flags = 0xffffffff;
        NTSTATUS status = STATUS_SUCCESS;
        EXPECT_THAT(PrintsOf([&] { status = GetDebugLogFlags(&flags); }), ElementsAre("Tarnveil.sys: ", row.Print));
        ResetFailures();
        EXPECT_EQ(status, row.Status) << row.Print;
        EXPECT_EQ(flags, 0u);
    }
}
}
}
