// Drive-letter paths in their device form.

#include "driver/names/dos_name.h"
#include "driver/util/pool.h"
#include "hosted/ex/pool.h"
#include "hosted/ke/failure_injection.h"
#include "hosted/ob/name_space.h"
#include "hosted/rtl/debug_print.h"
#include "tests/support/machine.h"
#include "tests/unit/driver/stand_in.h"

#include <gmock/gmock.h>

namespace
{
using namespace hosted;
using testing::ElementsAre;
using testing::IsEmpty;

class DosName : public testing::Test
{
protected:
    void SetUp() override
    {
        // An earlier machine may have been another system.
        InitializePoolPolicy();
        Allocations = LivePoolAllocations();
        Handles = TakeInventory().KernelHandles;
    }

    // Whatever happens, nothing but the result is left, and a failure leaves no result.
    NTSTATUS Convert(WideView path)
    {
        const UNICODE_STRING dosPath = Counted(path);
        CountedString ntPath;
        const NTSTATUS status = GetNtNameFromDosName(&dosPath, &ntPath);
        EXPECT_EQ(ntPath.Get().Buffer != nullptr, NT_SUCCESS(status));
        Result = Narrow(View(ntPath.Get()));
        Capacity = ntPath.Get().MaximumLength;
        ntPath.Free();
        EXPECT_EQ(LivePoolAllocations(), Allocations) << DescribeLivePool();
        EXPECT_EQ(TakeInventory().KernelHandles, Handles);
        return status;
    }
    NTSTATUS ConvertFailing(const char* routine, uint64_t number)
    {
        Computer.ClearDebugPrints();
        FailRoutine(routine, number);
        const NTSTATUS status = Convert(L"C:\\a.txt");
        EXPECT_EQ(InjectedFailures(), 1u);
        ResetFailures();
        return status;
    }

    Machine Computer;
    size_t Allocations = 0;
    size_t Handles = 0;
    std::string Result;
    ULONG Capacity = 0;
};

TEST_F(DosName, DriveLetterBecomesTheDevice)
{
    EXPECT_EQ(Convert(L"C:\\Apps\\Editor.exe"), STATUS_SUCCESS);
    EXPECT_EQ(Result, "\\Device\\HarddiskVolume1\\Apps\\Editor.exe");
    EXPECT_EQ(Capacity, Result.size() * sizeof(WCHAR));
    EXPECT_THAT(DebugPrints(), IsEmpty());
}

TEST_F(DosName, RootAndLowerCaseLetterAreDrivePathsToo)
{
    EXPECT_EQ(Convert(L"C:\\"), STATUS_SUCCESS);
    EXPECT_EQ(Result, "\\Device\\HarddiskVolume1\\");
    EXPECT_EQ(Convert(L"c:\\a b\\*.txt"), STATUS_SUCCESS);
    EXPECT_EQ(Result, "\\Device\\HarddiskVolume1\\a b\\*.txt");
}

TEST_F(DosName, EveryDriveHasItsOwnDevice)
{
    VolumeOptions second;
    second.DeviceName = L"\\Device\\HarddiskVolume2";
    second.DosName = L"D:";
    Computer.AddVolume(second);
    Allocations = LivePoolAllocations();
    EXPECT_EQ(Convert(L"D:\\x"), STATUS_SUCCESS);
    EXPECT_EQ(Result, "\\Device\\HarddiskVolume2\\x");
}

TEST_F(DosName, PathWithoutADriveLetterIsInvalid)
{
    for (WideView path : {WideView(L"\\Device\\HarddiskVolume1\\a"), WideView(L"\\\\server\\share\\a"),
             WideView(L"a.exe"), WideView(L"C:"), WideView(L"C:a"), WideView(L"CD:\\a"), WideView(L"\\??\\C:\\a")})
    {
        Computer.ClearDebugPrints();
        EXPECT_EQ(Convert(path), STATUS_INVALID_PARAMETER) << Narrow(path);
        EXPECT_THAT(
            DebugPrints(), ElementsAre("GetNtNameFromDosName failed: Invalid Parameter " + Narrow(path) + "\n"));
    }
}

TEST_F(DosName, EmptyPathIsInvalid)
{
    const UNICODE_STRING empty = {};
    CountedString ntPath;
    EXPECT_EQ(GetNtNameFromDosName(&empty, &ntPath), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(ntPath.Get().Buffer, nullptr);
    EXPECT_EQ(Convert(L""), STATUS_INVALID_PARAMETER);
}

TEST_F(DosName, DriveThatDoesNotExistCannotBeOpened)
{
    EXPECT_EQ(Convert(L"X:\\a"), STATUS_OBJECT_NAME_NOT_FOUND);
    EXPECT_THAT(DebugPrints(), ElementsAre("ZwOpenSymbolicLinkObject failed c0000034\n"));
}

TEST_F(DosName, LinkWithoutATargetIsNoDrive)
{
    const stand_in::Answer answer(stand_in::Answer::EmptyLinkTarget);
    EXPECT_EQ(Convert(L"C:\\a"), STATUS_UNSUCCESSFUL);
    EXPECT_THAT(DebugPrints(), ElementsAre("SymbolicLinkLength is zero\n"));
}

TEST_F(DosName, FailedOpenOfTheLinkIsPassedOn)
{
    EXPECT_EQ(ConvertFailing("ZwOpenSymbolicLinkObject", 1), STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_THAT(DebugPrints(), ElementsAre("ZwOpenSymbolicLinkObject failed c000009a\n"));
}

TEST_F(DosName, FailedSizeQueryIsPassedOnUnderTheOtherRoutinesName)
{
    EXPECT_EQ(ConvertFailing("ZwQuerySymbolicLinkObject", 1), STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_THAT(DebugPrints(), ElementsAre("ZwOpenSymbolicLinkObject failed (not TOO_SMALL) c000009a\n"));
}

TEST_F(DosName, FailedQueryOfTheTargetIsPassedOn)
{
    EXPECT_EQ(ConvertFailing("ZwQuerySymbolicLinkObject", 2), STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_THAT(DebugPrints(), ElementsAre("ZwQuerySymbolicLinkObject failed c000009a\n"));
}

// A size query that needs no room at all succeeds, which is not the expected answer.
TEST_F(DosName, LinkToNothingIsNoDrive)
{
    const stand_in::Answer answer(stand_in::Answer::NoLinkTarget);
    EXPECT_EQ(Convert(L"C:\\a"), STATUS_UNSUCCESSFUL);
    EXPECT_THAT(DebugPrints(), ElementsAre("ZwOpenSymbolicLinkObject failed (not TOO_SMALL) 0\n"));
}

// Allocations in order: the two copies of the drive-letter test, the link's target, the result.
TEST_F(DosName, WithoutMemoryThereIsNoResult)
{
    for (uint64_t number : {1, 2})
    {
        EXPECT_EQ(ConvertFailing("ExAllocatePoolWithTag", number), STATUS_INVALID_PARAMETER);
        EXPECT_THAT(DebugPrints(), ElementsAre("GetNtNameFromDosName failed: Invalid Parameter C:\\a.txt\n"));
    }
    for (uint64_t number : {3, 4})
    {
        EXPECT_EQ(ConvertFailing("ExAllocatePoolWithTag", number), STATUS_INSUFFICIENT_RESOURCES);
        EXPECT_THAT(DebugPrints(), ElementsAre("Memory allocation error\n"));
    }
}

TEST_F(DosName, ResultThatNoCountedStringCanHoldIsRefused)
{
    const WideString path = L"C:\\" + WideString(32760, L'x');
    EXPECT_EQ(Convert(path), STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_THAT(DebugPrints(), ElementsAre("Memory allocation error\n"));
}
}
