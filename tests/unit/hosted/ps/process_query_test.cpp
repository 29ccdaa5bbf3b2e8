// The two information queries.
#include "hosted/ps/process_table.h"
#include "hosted/ps/query_hooks.h"

#include "hosted/ke/failure_injection.h"
#include "hosted/ke/system_model.h"
#include "hosted/machine/machine_options.h"

#include <gmock/gmock.h>

#include <vector>

using namespace hosted;
using testing::ElementsAre;

namespace
{
const HANDLE OwnProcess = reinterpret_cast<HANDLE>(LONG_PTR{-1});

class ProcessQueryTest : public testing::Test
{
protected:
    ProcessQueryTest()
    {
        ResetFailures();
        ShutdownProcesses();
        Model() = Windows7();
        process_ = CreateProcessObject(
            AllocateProcessId(), SystemProcess()->Id, L"\\Device\\HarddiskVolume1\\Apps\\Editor.exe", L"Editor.exe");
        InsertProcess(process_);
    }

    ~ProcessQueryTest() override
    {
        RemoveProcess(process_);
        DereferenceObject(process_);
        ShutdownProcesses();
        Model() = Windows7();
        EXPECT_EQ("", DescribeLiveObjects());
    }

    // The record of each process, by the chain of the answer.
    std::vector<const SYSTEM_PROCESS_INFORMATION*> Query()
    {
        ULONG needed = 0;
        EXPECT_EQ(STATUS_INFO_LENGTH_MISMATCH, ZwQuerySystemInformation(SystemProcessInformation, nullptr, 0, &needed));
        answer_.assign(needed, 0xCC);
        ULONG used = 0;
        EXPECT_EQ(STATUS_SUCCESS, ZwQuerySystemInformation(SystemProcessInformation, answer_.data(), needed, &used));
        EXPECT_EQ(needed, used);
        std::vector<const SYSTEM_PROCESS_INFORMATION*> records;
        size_t at = 0;
        for (;;)
        {
            EXPECT_EQ(0u, at % 8);
            records.push_back(reinterpret_cast<const SYSTEM_PROCESS_INFORMATION*>(answer_.data() + at));
            if (records.back()->NextEntryOffset == 0)
            {
                return records;
            }
            at += records.back()->NextEntryOffset;
        }
    }

    Process* process_;
    std::vector<UCHAR> answer_;
};

TEST_F(ProcessQueryTest, ImageNameStandsBehindItsString)
{
    const HANDLE handle = KernelHandles().Insert(process_, 0);
    ULONG needed = 0;
    EXPECT_EQ(
        STATUS_INFO_LENGTH_MISMATCH, ZwQueryInformationProcess(handle, ProcessImageFileName, nullptr, 0, &needed));
    EXPECT_EQ(sizeof(UNICODE_STRING) + process_->ImageNtPath.size() * 2 + 2, needed);
    std::vector<UCHAR> buffer(needed);
    EXPECT_EQ(STATUS_INFO_LENGTH_MISMATCH,
        ZwQueryInformationProcess(handle, ProcessImageFileName, buffer.data(), needed - 1, &needed));
    EXPECT_EQ(STATUS_SUCCESS, ZwQueryInformationProcess(handle, ProcessImageFileName, buffer.data(), needed, nullptr));
    const auto* name = reinterpret_cast<const UNICODE_STRING*>(buffer.data());
    EXPECT_EQ(reinterpret_cast<const UCHAR*>(name->Buffer), buffer.data() + sizeof(UNICODE_STRING));
    EXPECT_EQ("\\Device\\HarddiskVolume1\\Apps\\Editor.exe", Narrow(View(*name)));
    EXPECT_EQ(name->Length + 2, name->MaximumLength);
    KernelHandles().Close(handle);
}

TEST_F(ProcessQueryTest, ImageNameOfSystemIsEmpty)
{
    UNICODE_STRING name{};
    ULONG needed = 0;
    EXPECT_EQ(
        STATUS_SUCCESS, ZwQueryInformationProcess(OwnProcess, ProcessImageFileName, &name, sizeof(name), &needed));
    EXPECT_EQ(sizeof(name), needed);
    EXPECT_EQ(0, name.Length);
}

TEST_F(ProcessQueryTest, ImageNameQueryFails)
{
    ULONG needed = 0;
    EXPECT_EQ(
        STATUS_INVALID_INFO_CLASS, ZwQueryInformationProcess(OwnProcess, ProcessBasicInformation, nullptr, 0, &needed));
    EXPECT_EQ(STATUS_INVALID_HANDLE, ZwQueryInformationProcess(reinterpret_cast<HANDLE>(ULONG_PTR{0x7c}),
                                         ProcessImageFileName, nullptr, 0, &needed));
    Thread* thread = CreateThreadObject(process_);
    const HANDLE handle = KernelHandles().Insert(thread, 0);
    EXPECT_EQ(
        STATUS_OBJECT_TYPE_MISMATCH, ZwQueryInformationProcess(handle, ProcessImageFileName, nullptr, 0, &needed));
    KernelHandles().Close(handle);
    DereferenceObject(thread);
    FailRoutine("ZwQueryInformationProcess");
    EXPECT_EQ(STATUS_INSUFFICIENT_RESOURCES,
        ZwQueryInformationProcess(OwnProcess, ProcessImageFileName, nullptr, 0, &needed));
    ResetFailures();
    EXPECT_EQ(0u, needed);
}

TEST_F(ProcessQueryTest, SnapshotListsIdleSystemAndTheRest)
{
    const auto records = Query();
    ASSERT_EQ(3u, records.size());
    EXPECT_EQ(nullptr, records[0]->UniqueProcessId);
    EXPECT_EQ(0, records[0]->ImageName.Length);
    EXPECT_EQ(nullptr, records[0]->ImageName.Buffer);
    EXPECT_EQ(SystemProcess()->Id, records[1]->UniqueProcessId);
    EXPECT_EQ("System", Narrow(View(records[1]->ImageName)));
    EXPECT_EQ(process_->Id, records[2]->UniqueProcessId);
    EXPECT_EQ(SystemProcess()->Id, records[2]->InheritedFromUniqueProcessId);
    EXPECT_EQ(process_->CreateTime, records[2]->CreateTime.QuadPart);
    EXPECT_EQ("Editor.exe", Narrow(View(records[2]->ImageName)));
    const auto* text = reinterpret_cast<const UCHAR*>(records[2]->ImageName.Buffer);
    EXPECT_GE(text, reinterpret_cast<const UCHAR*>(records[2] + 1));
    EXPECT_LE(text + records[2]->ImageName.MaximumLength, answer_.data() + answer_.size());
}

TEST_F(ProcessQueryTest, SnapshotNeedsRoomForAll)
{
    ULONG needed = 0;
    ZwQuerySystemInformation(SystemProcessInformation, nullptr, 0, &needed);
    std::vector<UCHAR> buffer(needed, 0xCC);
    ULONG again = 0;
    EXPECT_EQ(STATUS_INFO_LENGTH_MISMATCH,
        ZwQuerySystemInformation(SystemProcessInformation, buffer.data(), needed - 1, &again));
    EXPECT_EQ(needed, again);
    EXPECT_EQ(STATUS_INFO_LENGTH_MISMATCH, ZwQuerySystemInformation(SystemProcessInformation, nullptr, 0, nullptr));
    EXPECT_THAT(buffer, testing::Each(0xCC));
}

TEST_F(ProcessQueryTest, PoolZeroingIsKnownFromVersion10)
{
    BOOLEAN zeroes = 7;
    ULONG used = 0;
    EXPECT_EQ(STATUS_INVALID_INFO_CLASS,
        NtQuerySystemInformation(SystemPoolZeroingInformation, &zeroes, sizeof(zeroes), &used));
    EXPECT_EQ(7, zeroes);
    Model() = Windows10();
    EXPECT_EQ(STATUS_INFO_LENGTH_MISMATCH, NtQuerySystemInformation(SystemPoolZeroingInformation, &zeroes, 0, &used));
    EXPECT_EQ(1u, used);
    EXPECT_EQ(STATUS_SUCCESS, NtQuerySystemInformation(SystemPoolZeroingInformation, &zeroes, sizeof(zeroes), &used));
    EXPECT_EQ(TRUE, zeroes);
    Model().ZeroesPool = false;
    EXPECT_EQ(STATUS_SUCCESS, NtQuerySystemInformation(SystemPoolZeroingInformation, &zeroes, sizeof(zeroes), nullptr));
    EXPECT_EQ(FALSE, zeroes);
}

TEST_F(ProcessQueryTest, UnknownClassesAndInjectedFailures)
{
    ULONG used = 0;
    EXPECT_EQ(STATUS_INVALID_INFO_CLASS,
        ZwQuerySystemInformation(static_cast<SYSTEM_INFORMATION_CLASS>(6), nullptr, 0, &used));
    FailRoutine("ZwQuerySystemInformation");
    EXPECT_EQ(STATUS_INSUFFICIENT_RESOURCES, ZwQuerySystemInformation(SystemProcessInformation, nullptr, 0, &used));
    FailRoutine("NtQuerySystemInformation");
    EXPECT_EQ(STATUS_INSUFFICIENT_RESOURCES, NtQuerySystemInformation(SystemProcessInformation, nullptr, 0, &used));
    ResetFailures();
}

TEST_F(ProcessQueryTest, TheTrustingFormIsForTheKernelOnly)
{
    const AttachedProcess play(process_);
    BOOLEAN zeroes = 0;
    ULONG used = 0;
    Model() = Windows10();
    EXPECT_EQ(STATUS_ACCESS_VIOLATION,
        NtQuerySystemInformation(SystemPoolZeroingInformation, &zeroes, sizeof(zeroes), nullptr));
    EXPECT_EQ(STATUS_ACCESS_VIOLATION, NtQuerySystemInformation(SystemProcessInformation, nullptr, 0, &used));
    EXPECT_EQ(STATUS_SUCCESS, ZwQuerySystemInformation(SystemPoolZeroingInformation, &zeroes, sizeof(zeroes), &used));
}

TEST_F(ProcessQueryTest, HooksAnswerInTheSystemsPlace)
{
    std::vector<ULONG> lengths;
    SetSystemQueryHook(
        [&](ULONG kind, ULONG length) -> std::optional<QueryAnswer>
        {
            EXPECT_EQ(static_cast<ULONG>(SystemProcessInformation), kind);
            lengths.push_back(length);
            if (lengths.size() == 3)
            {
                return std::nullopt;
            }
            return QueryAnswer{STATUS_INFO_LENGTH_MISMATCH, length + 16};
        });
    ULONG needed = 1;
    EXPECT_EQ(STATUS_INFO_LENGTH_MISMATCH, ZwQuerySystemInformation(SystemProcessInformation, nullptr, 0, &needed));
    EXPECT_EQ(16u, needed);
    std::vector<UCHAR> buffer(64 * 1024);
    ZwQuerySystemInformation(SystemProcessInformation, buffer.data(), needed, &needed);
    EXPECT_EQ(32u, needed);
    EXPECT_EQ(STATUS_SUCCESS,
        ZwQuerySystemInformation(SystemProcessInformation, buffer.data(), static_cast<ULONG>(buffer.size()), &needed));
    EXPECT_THAT(lengths, ElementsAre(0u, 16u, 64u * 1024));

    SetProcessQueryHook([](ULONG, ULONG) { return QueryAnswer{STATUS_INFO_LENGTH_MISMATCH, 0}; });
    EXPECT_EQ(
        STATUS_INFO_LENGTH_MISMATCH, ZwQueryInformationProcess(OwnProcess, ProcessImageFileName, nullptr, 0, &needed));
    EXPECT_EQ(0u, needed);
    ResetQueryHooks();
    EXPECT_EQ(
        STATUS_INFO_LENGTH_MISMATCH, ZwQueryInformationProcess(OwnProcess, ProcessImageFileName, nullptr, 0, &needed));
    EXPECT_EQ(sizeof(UNICODE_STRING), needed);
}
}
