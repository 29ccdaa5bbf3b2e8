#include "hosted/ex/system_routines.h"

#include "hosted/ke/failure_injection.h"
#include "hosted/ke/irql.h"

#include <gtest/gtest.h>

namespace hosted
{
namespace
{
void* Find(WideView name)
{
    UNICODE_STRING counted = Counted(name);
    return MmGetSystemRoutineAddress(&counted);
}

class SystemRoutines : public testing::Test
{
protected:
    void TearDown() override
    {
        ShowAllSystemRoutines();
        ResetFailures();
    }
};

TEST_F(SystemRoutines, FindsItsNames)
{
    EXPECT_EQ(reinterpret_cast<void*>(&ZwQueryInformationProcess), Find(L"ZwQueryInformationProcess"));
    EXPECT_EQ(reinterpret_cast<void*>(&ZwQuerySystemInformation), Find(L"ZwQuerySystemInformation"));
    EXPECT_EQ(reinterpret_cast<void*>(&NtQuerySystemInformation), Find(L"NtQuerySystemInformation"));
}

TEST_F(SystemRoutines, FindsWhatTheKernelExports)
{
    EXPECT_EQ(reinterpret_cast<void*>(&ZwClose), Find(L"ZwClose"));
    EXPECT_EQ(reinterpret_cast<void*>(&KernelToUpper), Find(L"towupper"));
    EXPECT_EQ(nullptr, Find(L"FltRegisterFilter")) << "another module's";
}

TEST_F(SystemRoutines, FindsNothingElse)
{
    EXPECT_EQ(nullptr, Find(L""));
    EXPECT_EQ(nullptr, Find(L"zwqueryinformationprocess"));
    EXPECT_EQ(nullptr, Find(L"ZwQueryInformationProces"));
}

TEST_F(SystemRoutines, NamesCanBeHidden)
{
    HideSystemRoutine(L"ZwQuerySystemInformation");
    EXPECT_EQ(nullptr, Find(L"ZwQuerySystemInformation"));
    EXPECT_NE(nullptr, Find(L"NtQuerySystemInformation"));
    ShowAllSystemRoutines();
    EXPECT_NE(nullptr, Find(L"ZwQuerySystemInformation"));
}

TEST_F(SystemRoutines, FailsWhenAsked)
{
    FailRoutine("MmGetSystemRoutineAddress");
    EXPECT_EQ(nullptr, Find(L"ZwQuerySystemInformation"));
    EXPECT_NE(nullptr, Find(L"ZwQuerySystemInformation"));
}

TEST_F(SystemRoutines, RulesDeath)
{
    EXPECT_DEATH(MmGetSystemRoutineAddress(nullptr), "null-pointer");
    EXPECT_DEATH(
        {
            RaisedIrql apc(APC_LEVEL);
            Find(L"ZwQuerySystemInformation");
        },
        "irql-too-high: MmGetSystemRoutineAddress");
}
}
}
