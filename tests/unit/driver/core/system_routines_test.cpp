// The two queries that are looked up by name, and how their answers' sizes are found.

#include "driver/core/system_routines.h"
#include "hosted/ex/pool.h"
#include "hosted/ke/failure_injection.h"
#include "hosted/ps/query_hooks.h"
#include "hosted/rtl/debug_print.h"
#include "tests/support/machine.h"

#include <gmock/gmock.h>

namespace
{
using namespace hosted;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;

constexpr ULONG ImageNameClass = 27;
constexpr ULONG ProcessListClass = 5;

// Both wrappers behave the same; only routine, class and texts differ.
enum class Wrapper
{
    OfProcess,
    OfSystem
};

class SizeProbe : public testing::TestWithParam<Wrapper>
{
protected:
    void SetUp() override
    {
        // An earlier machine may have been another system.
        InitializePoolPolicy();
        App.emplace(Computer.StartProcess(L"C:\\Apps\\Editor.exe"));
        Computer.ClearDebugPrints();
        Allocations = LivePoolAllocations();
    }
    void TearDown() override
    {
        FreePool(Slot);
        Slot = nullptr;
        ResetFailures();
        ResetQueryHooks();
        EXPECT_EQ(LivePoolAllocations(), Allocations) << DescribeLivePool();
    }

    bool OfProcess() const { return GetParam() == Wrapper::OfProcess; }
    const char* Routine() const { return OfProcess() ? "ZwQueryInformationProcess" : "ZwQuerySystemInformation"; }
    // What the wrapper under test prints: the first text or the second.
    std::string Text(const std::string& ofProcess, const std::string& ofSystem) const
    {
        return OfProcess() ? ofProcess : ofSystem;
    }
    NTSTATUS Query()
    {
        if (!OfProcess())
        {
            auto result = static_cast<PSYSTEM_PROCESS_INFORMATION>(Slot);
            const NTSTATUS status = QuerySystemInformation(&result);
            Slot = result;
            return status;
        }
        auto result = static_cast<PUNICODE_STRING>(Slot);
        // The pseudo handle of the current process.
        const NTSTATUS status =
            App->As([&] { return QueryInformationProcess(reinterpret_cast<HANDLE>(LONG_PTR{-1}), &result); });
        Slot = result;
        return status;
    }
    // Answers in the system's place, in order; afterwards the system answers itself.
    void Answer(std::vector<QueryAnswer> answers)
    {
        Lengths.clear();
        auto hook = [this, answers](ULONG kind, ULONG length) -> std::optional<QueryAnswer>
        {
            EXPECT_EQ(kind, OfProcess() ? ImageNameClass : ProcessListClass);
            const size_t number = Lengths.size();
            Lengths.push_back(length);
            return number < answers.size() ? std::optional(answers[number]) : std::nullopt;
        };
        OfProcess() ? SetProcessQueryHook(hook) : SetSystemQueryHook(hook);
    }

    Machine Computer;
    std::optional<Program> App;
    PVOID Slot = nullptr;
    size_t Allocations = 0;
    // Of the buffers that came with the queries.
    std::vector<ULONG> Lengths;
};

TEST_P(SizeProbe, AllocatesWhatTheSystemAsksForAndQueriesAgain)
{
    Answer({});
    EXPECT_EQ(Query(), STATUS_SUCCESS);
    ASSERT_NE(Slot, nullptr);
    ASSERT_EQ(Lengths.size(), 2u);
    EXPECT_EQ(Lengths[0], 0u);
    EXPECT_EQ(Lengths[1], PoolAllocationSize(Slot));
    EXPECT_THAT(DebugPrints(), IsEmpty());
}

TEST_P(SizeProbe, SlotInUseIsInvalidAndKept)
{
    UCHAR taken = 0;
    Slot = &taken;
    Answer({});
    EXPECT_EQ(Query(), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(Slot, &taken);
    Slot = nullptr;
    EXPECT_THAT(Lengths, IsEmpty());
    EXPECT_THAT(
        DebugPrints(), ElementsAre(Text("[DlExtFunc] QueryInformationProcess : ProcessInformationLength is zero.\n",
                           "[DlExtFunc] QuerySystemInformation : SystemInformationLength is zero.\n")));
}

TEST_P(SizeProbe, OnlyALengthMismatchIsRetried)
{
    for (ULONG refusal : {0xC0000022u, 0x80000005u, 0xC0000023u})
    {
        Computer.ClearDebugPrints();
        Answer({{static_cast<NTSTATUS>(refusal), 64}});
        EXPECT_EQ(Query(), static_cast<NTSTATUS>(refusal));
        EXPECT_EQ(Slot, nullptr);
        EXPECT_THAT(Lengths, ElementsAre(0));
        char status[16];
        snprintf(status, sizeof(status), "%08X", refusal);
        EXPECT_THAT(DebugPrints(),
            ElementsAre(Text(std::string("[DlExtFunc] QueryInformationProcess failed : non-mismatch ") + status + "\n",
                std::string("[DlExtFunc] QuerySystemInformation failed : non-mismatch ") + status + "\n")));
    }
}

TEST_P(SizeProbe, RequiredLengthOfZeroEndsTheQuery)
{
    Answer({{STATUS_INFO_LENGTH_MISMATCH, 0}});
    EXPECT_EQ(Query(), STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_EQ(Slot, nullptr);
    EXPECT_THAT(Lengths, ElementsAre(0));
    EXPECT_THAT(
        DebugPrints(), ElementsAre(Text("[DlExtFunc] QueryInformationProcess : the size of buffer required is zero.\n",
                           "[DlExtFunc] QuerySystemInformation : the size of buffer required is zero.\n")));
}

TEST_P(SizeProbe, NoMemoryEndsTheQuery)
{
    FailRoutine("ExAllocatePoolWithTag");
    EXPECT_EQ(Query(), STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_EQ(Slot, nullptr);
    EXPECT_THAT(DebugPrints(), ElementsAre(Text("[DlExtFunc] QueryInformationProcess : resource allocation error\n",
                                   "[DlExtFunc] QuerySystemInformation : resource allocation error\n")));
}

TEST_P(SizeProbe, NoMemoryForALargerBufferFreesTheSmaller)
{
    Answer({{STATUS_INFO_LENGTH_MISMATCH, 16}, {STATUS_INFO_LENGTH_MISMATCH, 32}});
    FailRoutine("ExAllocatePoolWithTag", 2);
    EXPECT_EQ(Query(), STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_EQ(Slot, nullptr);
    EXPECT_THAT(DebugPrints(), ElementsAre(Text("[DlExtFunc] QueryInformationProcess : resource allocation error\n",
                                   "[DlExtFunc] QuerySystemInformation : resource allocation error\n")));
}

TEST_P(SizeProbe, AnswerThatKeepsGrowingIsAskedForAgain)
{
    std::vector<QueryAnswer> growing;
    std::vector<ULONG> lengths = {0};
    for (ULONG size = 4; size <= 400; size += 4)
    {
        growing.push_back({STATUS_INFO_LENGTH_MISMATCH, size});
        lengths.push_back(size);
    }
    // More than either answer takes.
    growing.push_back({STATUS_INFO_LENGTH_MISMATCH, 65536});
    lengths.push_back(65536);
    Answer(growing);
    EXPECT_EQ(Query(), STATUS_SUCCESS);
    EXPECT_THAT(Lengths, ElementsAreArray(lengths));
    EXPECT_EQ(PoolAllocationSize(Slot), 65536u);
    EXPECT_EQ(LivePoolAllocations(), Allocations + 1);
    EXPECT_THAT(DebugPrints(), IsEmpty());
}

TEST_P(SizeProbe, FailureOfALaterQueryFreesTheBuffer)
{
    FailRoutine(Routine(), 2);
    EXPECT_EQ(Query(), STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_EQ(InjectedFailures(), 1u);
    EXPECT_EQ(Slot, nullptr);
    EXPECT_EQ(LivePoolAllocations(), Allocations);
    EXPECT_THAT(DebugPrints(), ElementsAre(Text("[DlExtFunc] QueryInformationProcess failed : non-mismatch C000009A\n",
                                   "[DlExtFunc] QuerySystemInformation failed : non-mismatch C000009A\n")));
}

TEST_P(SizeProbe, AnswerThatNeedsNoBufferIsASuccessWithoutOne)
{
    Answer({{STATUS_SUCCESS, 0}});
    EXPECT_EQ(Query(), STATUS_SUCCESS);
    EXPECT_EQ(Slot, nullptr);
    EXPECT_THAT(DebugPrints(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(BothWrappers, SizeProbe, testing::Values(Wrapper::OfProcess, Wrapper::OfSystem),
    [](const auto& wrapper) { return wrapper.param == Wrapper::OfProcess ? "OfProcess" : "OfSystem"; });

TEST(SystemQueries, ProcessQueryGivesTheImageName)
{
    Machine machine;
    InitializePoolPolicy();
    Program app = machine.StartProcess(L"C:\\Apps\\Editor.exe");
    PUNICODE_STRING name = nullptr;
    ASSERT_EQ(
        app.As([&] { return QueryInformationProcess(reinterpret_cast<HANDLE>(LONG_PTR{-1}), &name); }), STATUS_SUCCESS);
    EXPECT_EQ(Narrow(View(*name)), "\\Device\\HarddiskVolume1\\Apps\\Editor.exe");
    FreePool(name);
}

TEST(SystemQueries, SystemQueryGivesEveryProcessWithItsParent)
{
    Machine machine;
    InitializePoolPolicy();
    Program parent = machine.StartProcess(L"C:\\Parent.exe");
    Program child = parent.Start(L"C:\\Child.exe");
    PSYSTEM_PROCESS_INFORMATION first = nullptr;
    ASSERT_EQ(QuerySystemInformation(&first), STATUS_SUCCESS);
    std::vector<std::string> seen;
    for (auto record = first;;)
    {
        seen.push_back(std::to_string(reinterpret_cast<ULONG_PTR>(record->UniqueProcessId)) + " of " +
                       std::to_string(reinterpret_cast<ULONG_PTR>(record->InheritedFromUniqueProcessId)) + " " +
                       Narrow(View(record->ImageName)));
        if (record->NextEntryOffset == 0)
        {
            break;
        }
        record =
            reinterpret_cast<PSYSTEM_PROCESS_INFORMATION>(reinterpret_cast<PUCHAR>(record) + record->NextEntryOffset);
    }
    EXPECT_THAT(seen, testing::Contains(std::to_string(child.ProcessId()) + " of " +
                                        std::to_string(parent.ProcessId()) + " Child.exe"));
    FreePool(first);
}

TEST(SystemQueries, OnceResolvedTheyStaySo)
{
    Machine machine;
    InitializePoolPolicy();
    InitializeSystemRoutines();
    FailRoutine("MmGetSystemRoutineAddress", 1, true);
    EXPECT_EQ(ResolveProcessQuery(), STATUS_SUCCESS);
    EXPECT_EQ(ResolveSystemQuery(), STATUS_SUCCESS);
    // Known already, so nothing was looked up.
    EXPECT_EQ(InjectedFailures(), 0u);
    EXPECT_THAT(DebugPrints(), IsEmpty());
}
}
