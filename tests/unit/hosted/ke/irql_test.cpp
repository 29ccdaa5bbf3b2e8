#include "hosted/ke/irql.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

namespace hosted
{
namespace
{
TEST(Irql, StartsAtPassiveLevelOnEachThread)
{
    RaisedIrql raised(DISPATCH_LEVEL);
    EXPECT_EQ(DISPATCH_LEVEL, CurrentIrql());
    EXPECT_EQ(DISPATCH_LEVEL, KeGetCurrentIrql());
    KIRQL other = HIGH_LEVEL;
    std::thread([&] { other = CurrentIrql(); }).join();
    EXPECT_EQ(PASSIVE_LEVEL, other);
}

TEST(Irql, ScopesNestAndRestore)
{
    {
        RaisedIrql apc(APC_LEVEL);
        {
            RaisedIrql same(APC_LEVEL);
            RaisedIrql dispatch(DISPATCH_LEVEL);
            EXPECT_EQ(DISPATCH_LEVEL, CurrentIrql());
        }
        EXPECT_EQ(APC_LEVEL, CurrentIrql());
    }
    EXPECT_EQ(PASSIVE_LEVEL, CurrentIrql());
}

TEST(Irql, RequirementHoldsUpToItsLevel)
{
    RaisedIrql apc(APC_LEVEL);
    RequireIrql(APC_LEVEL, "Routine");
    RequireIrql(DISPATCH_LEVEL, "Routine");
    EXPECT_DEATH(RequireIrql(PASSIVE_LEVEL, "Routine"), "irql-too-high: Routine was called at 1, allowed up to 0");
}

TEST(Irql, DeferredWorkRunsWhenTheLevelDropsToPassive)
{
    static std::vector<int> order;
    order.clear();
    auto note = [](void* context)
    {
        EXPECT_EQ(PASSIVE_LEVEL, CurrentIrql());
        order.push_back(*static_cast<int*>(context));
    };
    int first = 1;
    int second = 2;
    int third = 3;
    {
        RaisedIrql apc(APC_LEVEL);
        {
            RaisedIrql dispatch(DISPATCH_LEVEL);
            RunAtPassiveLevel(note, &first);
        }
        RunAtPassiveLevel(note, &second);
        EXPECT_TRUE(order.empty());
    }
    EXPECT_EQ((std::vector{1, 2}), order);
    RunAtPassiveLevel(note, &third);
    EXPECT_EQ((std::vector{1, 2, 3}), order);
}

TEST(Irql, DeferredWorkMayDeferMore)
{
    static int runs;
    runs = 0;
    {
        RaisedIrql apc(APC_LEVEL);
        RunAtPassiveLevel(
            [](void*)
            {
                RaisedIrql again(APC_LEVEL);
                RunAtPassiveLevel([](void*) { ++runs; }, nullptr);
                EXPECT_EQ(0, runs);
            },
            nullptr);
    }
    EXPECT_EQ(1, runs);
}

TEST(IrqlDeath, LevelsThatDoNotExistOrDoNotRise)
{
    EXPECT_DEATH(SetIrql(HIGH_LEVEL + 1), "irql-range");
    EXPECT_DEATH(
        {
            RaisedIrql dispatch(DISPATCH_LEVEL);
            RaisedIrql apc(APC_LEVEL);
        },
        "irql-not-raised");
    EXPECT_DEATH(
        {
            RaisedIrql dispatch(DISPATCH_LEVEL);
            SetIrql(APC_LEVEL);
        },
        "irql-not-restored");
}
}
}
