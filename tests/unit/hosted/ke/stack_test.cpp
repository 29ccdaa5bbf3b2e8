#include "hosted/ke/failure_injection.h"
#include "hosted/ke/irql.h"
#include "hosted/ke/system_model.h"
#include "hosted/ke/system_time.h"

#include <gtest/gtest.h>

namespace hosted
{
namespace
{
constexpr SIZE_T LargestExpansion = 0x12000 - 0x800;
constexpr NTSTATUS StatusInvalidParameter3 = static_cast<NTSTATUS>(0xC00000F1);

SIZE_T StackLeft()
{
    ULONG_PTR low;
    ULONG_PTR high;
    IoGetStackLimits(&low, &high);
    EXPECT_GT(high, low);
    EXPECT_GT(high, reinterpret_cast<ULONG_PTR>(&low));
    return reinterpret_cast<ULONG_PTR>(&low) - low;
}

class Stack : public testing::Test
{
protected:
    void SetUp() override
    {
        ResetFailures();
        saved_ = Model();
    }
    void TearDown() override
    {
        ResetFailures();
        Model() = saved_;
    }

private:
    SystemModel saved_;
};

struct Seen
{
    SIZE_T Left = 0;
    KIRQL Level = 0;
};

void NTAPI Look(PVOID parameter)
{
    auto* seen = static_cast<Seen*>(parameter);
    seen->Left = StackLeft();
    seen->Level = CurrentIrql();
}

TEST_F(Stack, PlentyByDefault)
{
    EXPECT_EQ(0x6000u, StackLeft());
}

TEST_F(Stack, AsMuchAsTheModelLeaves)
{
    Model().StackBytesLeft = 12787;
    EXPECT_EQ(12787u, StackLeft());
    Model().StackBytesLeft = 12788;
    EXPECT_EQ(12788u, StackLeft());
}

TEST_F(Stack, TheCalloutSeesTheExpandedStack)
{
    Model().StackBytesLeft = 1000;
    Seen seen;
    RaisedIrql dispatch(DISPATCH_LEVEL);
    EXPECT_EQ(STATUS_SUCCESS, KeExpandKernelStackAndCallout(Look, &seen, 24576));
    EXPECT_LE(seen.Left, 24576u);
    EXPECT_GT(seen.Left, 16384u);
    EXPECT_EQ(DISPATCH_LEVEL, seen.Level);
    EXPECT_EQ(1000u, StackLeft());
}

TEST_F(Stack, NoSwitchWhenEnoughIsLeft)
{
    Model().StackBytesLeft = 20000;
    Seen seen;
    EXPECT_EQ(STATUS_SUCCESS, KeExpandKernelStackAndCallout(Look, &seen, 10000));
    EXPECT_EQ(20000u, seen.Left);
}

TEST_F(Stack, ExpansionsNest)
{
    Model().StackBytesLeft = 1000;
    struct Nested
    {
        SIZE_T Before = 0;
        Seen Inner;
        SIZE_T After = 0;
    } nested;
    auto outer = [](PVOID parameter) NTAPI
    {
        auto* nested = static_cast<Nested*>(parameter);
        nested->Before = StackLeft();
        EXPECT_EQ(STATUS_SUCCESS, KeExpandKernelStackAndCallout(Look, &nested->Inner, 60000));
        nested->After = StackLeft();
    };
    EXPECT_EQ(STATUS_SUCCESS, KeExpandKernelStackAndCallout(outer, &nested, 30000));
    EXPECT_LE(nested.Before, 30000u);
    EXPECT_GT(nested.Inner.Left, 30000u);
    EXPECT_EQ(nested.Before, nested.After);
}

TEST_F(Stack, LimitsOfTheSize)
{
    Seen seen;
    EXPECT_EQ(STATUS_SUCCESS, KeExpandKernelStackAndCallout(Look, &seen, LargestExpansion));
    EXPECT_GT(seen.Left, 0u);
    seen = {};
    EXPECT_EQ(StatusInvalidParameter3, KeExpandKernelStackAndCallout(Look, &seen, LargestExpansion + 1));
    EXPECT_EQ(0u, seen.Left);
}

TEST_F(Stack, FailsWithoutCallingOut)
{
    FailRoutine("KeExpandKernelStackAndCallout");
    Seen seen;
    EXPECT_EQ(STATUS_NO_MEMORY, KeExpandKernelStackAndCallout(Look, &seen, 24576));
    EXPECT_EQ(0u, seen.Left);
}

TEST_F(Stack, RulesDeath)
{
    Seen seen;
    EXPECT_DEATH(
        {
            RaisedIrql high(DISPATCH_LEVEL + 1);
            KeExpandKernelStackAndCallout(Look, &seen, 24576);
        },
        "irql-too-high: KeExpandKernelStackAndCallout");
    auto raises = [](PVOID) NTAPI { SetIrql(APC_LEVEL); };
    EXPECT_DEATH(KeExpandKernelStackAndCallout(raises, nullptr, 4096), "irql-not-restored");
    ULONG_PTR low;
    EXPECT_DEATH(IoGetStackLimits(&low, nullptr), "null-pointer");
    EXPECT_DEATH(IoGetStackLimits(nullptr, &low), "null-pointer");
}

TEST(SystemTime, StandsStillUntilMoved)
{
    ResetSystemTime();
    EXPECT_EQ(133485408000000000, SystemTime());
    EXPECT_EQ(SystemTime(), SystemTime());
    AdvanceSystemTime(10000000);
    EXPECT_EQ(133485408010000000, SystemTime());
    AdvanceSystemTime(-1);
    EXPECT_EQ(133485408009999999, SystemTime());
    ResetSystemTime();
    EXPECT_EQ(InitialSystemTime, SystemTime());
}
}
}
