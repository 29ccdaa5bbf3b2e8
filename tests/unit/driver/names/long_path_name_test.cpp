// Expanding short path components, and what is remembered of it.

#include "driver/core/global_state.h"
#include "driver/names/long_path_name.h"
#include "driver/util/pool.h"
#include "hosted/ex/pool.h"
#include "hosted/ke/failure_injection.h"
#include "hosted/rtl/debug_print.h"
#include "tests/support/machine.h"

#include <gmock/gmock.h>

namespace
{
using namespace hosted;
using testing::ElementsAre;
using testing::IsEmpty;

class LongPathName : public testing::Test
{
protected:
    void SetUp() override
    {
        // An earlier machine may have been another system.
        InitializePoolPolicy();
        ASSERT_EQ(CTInitialize(&Global.ProcessCache), STATUS_SUCCESS);
        ASSERT_EQ(Computer.PutOnDisk(L"C:\\Program Files\\Long Editor Name\\editor program.exe", "MZ"), STATUS_SUCCESS);
        Computer.ClearDebugPrints();
    }
    void TearDown() override
    {
        ResetFailures();
        EXPECT_EQ(CTFinalize(&Global.ProcessCache), STATUS_SUCCESS);
    }

    // A failure leaves no result.
    NTSTATUS Expand(WideView path)
    {
        const UNICODE_STRING shortPath = Counted(path);
        CountedString longPath;
        const NTSTATUS status = KernelGetLongPathName(&shortPath, &longPath);
        EXPECT_EQ(longPath.Get().Buffer != nullptr, NT_SUCCESS(status));
        Result = Narrow(View(longPath.Get()));
        return status;
    }
    std::string Expanded(WideView path)
    {
        EXPECT_EQ(Expand(path), STATUS_SUCCESS) << Narrow(path);
        return Result;
    }
    ULONG Cached()
    {
        ULONG count = 0;
        EXPECT_EQ(CTGetElementCount(&Global.ProcessCache, &count), STATUS_SUCCESS);
        return count;
    }
    bool IsCached(WideView path)
    {
        const UNICODE_STRING key = Counted(path);
        return NT_SUCCESS(CTLookupElement(&Global.ProcessCache, &key, nullptr, 0));
    }

    Machine Computer;
    std::string Result;
};

constexpr WideView ShortPath = L"C:\\PROGRA~1\\LONGED~1\\EDITOR~1.EXE";
const char LongPath[] = "C:\\Program Files\\Long Editor Name\\editor program.exe";

TEST_F(LongPathName, OnlyATildeMakesAShortName)
{
    const UNICODE_STRING with = Counted(L"C:\\PROGRA~1");
    const UNICODE_STRING without = Counted(L"C:\\Program Files");
    const UNICODE_STRING empty = {};
    EXPECT_TRUE(HasShortName(&with));
    EXPECT_FALSE(HasShortName(&without));
    EXPECT_FALSE(HasShortName(&empty));
}

TEST_F(LongPathName, EmptyPathIsInvalid)
{
    EXPECT_EQ(Expand(L""), STATUS_INVALID_PARAMETER);
    EXPECT_THAT(DebugPrints(), IsEmpty());
}

TEST_F(LongPathName, PathWithoutATildeIsCopiedAndNeverCached)
{
    WCHAR text[64] = L"C:\\No such folder\\a.exe";
    const UNICODE_STRING path = {46, sizeof(text), text};
    CountedString longPath;
    FailRoutine("ZwOpenFile", 1, true);
    ASSERT_EQ(KernelGetLongPathName(&path, &longPath), STATUS_SUCCESS);
    EXPECT_EQ(InjectedFailures(), 0u);
    EXPECT_EQ(Narrow(View(longPath.Get())), "C:\\No such folder\\a.exe");
    EXPECT_NE(longPath.Get().Buffer, path.Buffer);
    EXPECT_EQ(longPath.Get().MaximumLength, path.MaximumLength);
    EXPECT_EQ(Cached(), 0u);
}

TEST_F(LongPathName, DrivePathIsExpandedComponentByComponent)
{
    EXPECT_EQ(Expanded(ShortPath), LongPath);
    EXPECT_EQ(Expanded(L"C:\\PROGRA~1"), "C:\\Program Files");
    EXPECT_EQ(Expanded(L"C:\\Program Files\\LONGED~1\\editor program.exe"), LongPath);
    EXPECT_EQ(Expanded(L"c:\\progra~1\\longed~1\\EDITOR PROGRAM.EXE"),
        "c:\\Program Files\\Long Editor Name\\editor program.exe");
    EXPECT_THAT(DebugPrints(), IsEmpty());
}

TEST_F(LongPathName, DevicePathIsExpandedComponentByComponent)
{
    EXPECT_EQ(Expanded(L"\\Device\\HarddiskVolume1\\PROGRA~1\\LONGED~1\\EDITOR~1.EXE"),
        "\\Device\\HarddiskVolume1\\Program Files\\Long Editor Name\\editor program.exe");
    EXPECT_THAT(DebugPrints(), IsEmpty());
}

TEST_F(LongPathName, TrailingBackslashStays)
{
    EXPECT_EQ(Expanded(L"C:\\PROGRA~1\\"), "C:\\Program Files\\");
}

TEST_F(LongPathName, TildeInALongNameIsLeftAlone)
{
    ASSERT_EQ(Computer.PutOnDisk(L"C:\\a~b c.text\\x", ""), STATUS_SUCCESS);
    EXPECT_EQ(Expanded(L"C:\\a~b c.text\\x"), "C:\\a~b c.text\\x");
}

TEST_F(LongPathName, ExpansionIsRememberedAndNotRepeated)
{
    EXPECT_EQ(Expanded(ShortPath), LongPath);
    EXPECT_TRUE(IsCached(ShortPath));
    EXPECT_EQ(Cached(), 1u);
    FailRoutine("ZwOpenFile", 1, true);
    EXPECT_EQ(Expanded(ShortPath), LongPath);
    EXPECT_EQ(InjectedFailures(), 0u);
    EXPECT_EQ(Cached(), 1u);
}

TEST_F(LongPathName, CacheIsBelievedWithoutAskingTheDisk)
{
    const UNICODE_STRING key = Counted(L"C:\\PROGRA~1");
    const UNICODE_STRING element = Counted(L"D:\\Elsewhere");
    ASSERT_EQ(CTInsertElement(&Global.ProcessCache, &key, &element, 0), STATUS_SUCCESS);
    EXPECT_EQ(Expanded(L"C:\\PROGRA~1"), "D:\\Elsewhere");
}

TEST_F(LongPathName, RecordThatLostItsElementTellsNothing)
{
    const UNICODE_STRING key = Counted(L"C:\\PROGRA~1");
    ASSERT_EQ(CTInsertElement(&Global.ProcessCache, &key, nullptr, 0), STATUS_SUCCESS);
    EXPECT_EQ(Expanded(L"C:\\PROGRA~1"), "C:\\Program Files");
}

TEST_F(LongPathName, PathThatIsNeitherOfADriveNorOfADeviceIsCopiedUncached)
{
    for (WideView path : {WideView(L"PROGRA~1"), WideView(L"server\\PROGRA~1\\a"), WideView(L"\\??\\C:\\PROGRA~1"),
             WideView(L"\\\\server\\share\\PROGRA~1"), WideView(L"C:PROGRA~1")})
    {
        EXPECT_EQ(Expanded(path), Narrow(path));
    }
    EXPECT_EQ(Cached(), 0u);
    EXPECT_THAT(DebugPrints(), IsEmpty());
}

TEST_F(LongPathName, ComponentThatDoesNotExistStaysShort)
{
    EXPECT_EQ(Expanded(L"C:\\NOSUCH~1\\LONGED~1\\a.exe"), "C:\\NOSUCH~1\\LONGED~1\\a.exe");
    EXPECT_EQ(Expanded(L"C:\\PROGRA~1\\NOSUCH~1\\a.exe"), "C:\\Program Files\\NOSUCH~1\\a.exe");
    EXPECT_EQ(Expanded(L"X:\\PROGRA~1"), "X:\\PROGRA~1");
    // The result is remembered all the same.
    EXPECT_EQ(Cached(), 3u);
    EXPECT_THAT(DebugPrints(), IsEmpty());
}

TEST_F(LongPathName, DirectoryThatCannotBeOpenedLeavesItsComponentShort)
{
    FailRoutine("ZwOpenFile", 1, true);
    EXPECT_EQ(Expanded(ShortPath), Narrow(ShortPath));
    EXPECT_EQ(InjectedFailures(), 6u);
    EXPECT_THAT(DebugPrints(), IsEmpty());
}

// Each directory is tried twice. The second time asks for less access, without which a system refuses an open for
// waiting I/O, so a first failure leaves the component short even when it was the only one.
TEST_F(LongPathName, DirectoryIsTriedASecondTimeWithLessAccess)
{
    FailRoutine("ZwOpenFile", 2);
    EXPECT_EQ(Expanded(ShortPath), "C:\\Program Files\\LONGED~1\\editor program.exe");
    CTClear(&Global.ProcessCache);
    FailRoutine("ZwOpenFile", 1);
    EXPECT_EQ(Expanded(ShortPath), "C:\\PROGRA~1\\Long Editor Name\\editor program.exe");
    EXPECT_EQ(InjectedFailures(), 2u);
    // Three directories and one second try.
    CTClear(&Global.ProcessCache);
    FailRoutine("ZwOpenFile", 4);
    EXPECT_EQ(Expanded(ShortPath), LongPath);
    EXPECT_EQ(InjectedFailures(), 2u);
}

TEST_F(LongPathName, FailedSearchLeavesItsComponentShort)
{
    FailRoutine("ZwQueryDirectoryFile", 2);
    EXPECT_EQ(Expanded(ShortPath), "C:\\Program Files\\LONGED~1\\editor program.exe");
    EXPECT_EQ(InjectedFailures(), 1u);
    EXPECT_THAT(DebugPrints(), IsEmpty());
}

TEST_F(LongPathName, FullCacheIsPrintedAndIgnored)
{
    for (ULONG i = 0; i < CacheTableLimit; ++i)
    {
        const WideString text = Widen("key " + std::to_string(i));
        const UNICODE_STRING key = Counted(text);
        ASSERT_EQ(CTInsertElement(&Global.ProcessCache, &key, nullptr, 0), STATUS_SUCCESS);
    }
    EXPECT_EQ(Expanded(L"C:\\PROGRA~1"), "C:\\Program Files");
    EXPECT_THAT(DebugPrints(),
        ElementsAre("CTInsertElement cache full NTSTATUS = 0xc000009a path = C:\\PROGRA~1\n",
            "KernelGetLongPathName CTInsertElement failed Key = C:\\PROGRA~1 Element = C:\\Program Files\n"));
    EXPECT_FALSE(IsCached(L"C:\\PROGRA~1"));
}

TEST_F(LongPathName, CopyWithoutMemoryIsNoResult)
{
    FailRoutine("ExAllocatePoolWithTag");
    EXPECT_EQ(Expand(L"C:\\a.exe"), STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_THAT(DebugPrints(), ElementsAre("Memory allocation error\n"));
    Computer.ClearDebugPrints();
    // For a path of neither kind: two copies for each of the two patterns come first.
    FailRoutine("ExAllocatePoolWithTag", 5);
    EXPECT_EQ(Expand(L"PROGRA~1"), STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_THAT(DebugPrints(), ElementsAre("Memory allocation error\n"));
}

// After the two copies of the drive-letter test: three working buffers.
TEST_F(LongPathName, ExpansionWithoutMemoryForItsBuffersIsNoResult)
{
    const size_t before = LivePoolAllocations();
    for (uint64_t number : {3, 4, 5})
    {
        Computer.ClearDebugPrints();
        FailRoutine("ExAllocatePoolWithTag", number);
        EXPECT_EQ(Expand(ShortPath), STATUS_INSUFFICIENT_RESOURCES);
        EXPECT_EQ(InjectedFailures(), 1u);
        ResetFailures();
        EXPECT_THAT(DebugPrints(), ElementsAre("Memory allocation error\n"));
        EXPECT_EQ(Cached(), 0u);
        EXPECT_EQ(LivePoolAllocations(), before) << DescribeLivePool();
    }
}

TEST_F(LongPathName, PathThatOutgrowsACountedStringIsNoResult)
{
    const WideString path = L"C:\\PROGRA~1\\" + WideString(32752, L'x');
    EXPECT_EQ(Expand(path), STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_THAT(DebugPrints(), ElementsAre("Memory allocation error\n"));
}

TEST_F(LongPathName, EveryCallMayFailOnce)
{
    const size_t before = LivePoolAllocations();
    const size_t handles = TakeInventory().KernelHandles;
    uint64_t number = 0;
    for (bool failed = true; failed;)
    {
        SCOPED_TRACE(++number);
        ResetFailures();
        FailNthCall(number);
        const NTSTATUS status = Expand(ShortPath);
        failed = InjectedFailures() != 0;
        ResetFailures();
        EXPECT_TRUE(status == STATUS_SUCCESS || status == STATUS_INSUFFICIENT_RESOURCES) << std::hex << status;
        if (!failed)
        {
            EXPECT_EQ(Result, LongPath);
        }
        CTClear(&Global.ProcessCache);
        EXPECT_EQ(LivePoolAllocations(), before) << DescribeLivePool();
        EXPECT_EQ(TakeInventory().KernelHandles, handles);
    }
    EXPECT_GT(number, 12u);
}
}
