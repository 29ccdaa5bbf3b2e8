#include "hosted/ke/fast_mutex.h"

#include "hosted/ke/irql.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <thread>
#include <vector>

namespace hosted
{
namespace
{
class FastMutex : public testing::Test
{
protected:
    FastMutex()
    {
        for (FAST_MUTEX* mutex : {&first_, &second_, &third_})
        {
            ExInitializeFastMutex(mutex);
        }
        ResetInnermost();
    }
    ~FastMutex() override { ResetInnermost(); }

    static void AcquireBoth(FAST_MUTEX* outer, FAST_MUTEX* inner)
    {
        ExAcquireFastMutex(outer);
        ExAcquireFastMutex(inner);
        ExReleaseFastMutex(inner);
        ExReleaseFastMutex(outer);
    }

    FAST_MUTEX first_;
    FAST_MUTEX second_;
    FAST_MUTEX third_;
};

TEST_F(FastMutex, RaisesToApcLevelAndRestores)
{
    ExAcquireFastMutex(&first_);
    EXPECT_EQ(APC_LEVEL, CurrentIrql());
    EXPECT_EQ(1, FastMutexesHeld());
    EXPECT_EQ(PASSIVE_LEVEL, first_.OldIrql);
    EXPECT_NE(nullptr, first_.Owner);
    EXPECT_EQ(0, first_.Count);
    ExReleaseFastMutex(&first_);
    EXPECT_EQ(PASSIVE_LEVEL, CurrentIrql());
    EXPECT_EQ(0, FastMutexesHeld());
    EXPECT_EQ(nullptr, first_.Owner);
    EXPECT_EQ(FM_LOCK_BIT, first_.Count);
}

TEST_F(FastMutex, CanBeTakenAtApcLevel)
{
    RaisedIrql apc(APC_LEVEL);
    ExAcquireFastMutex(&first_);
    ExReleaseFastMutex(&first_);
    EXPECT_EQ(APC_LEVEL, CurrentIrql());
}

TEST_F(FastMutex, WorksWhenInitialisedByHand)
{
    FAST_MUTEX mutex;
    memset(&mutex, 0xA5, sizeof(mutex));
    mutex.Count = 1;
    mutex.Owner = nullptr;
    mutex.Contention = 0;
    KeInitializeEvent(&mutex.Event, SynchronizationEvent, FALSE);
    ExAcquireFastMutex(&mutex);
    EXPECT_EQ(APC_LEVEL, CurrentIrql());
    ExReleaseFastMutex(&mutex);
    EXPECT_EQ(PASSIVE_LEVEL, CurrentIrql());
}

TEST_F(FastMutex, ExcludesOthers)
{
    constexpr int Rounds = 2000;
    int counter = 0;
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i)
    {
        threads.emplace_back(
            [&]
            {
                for (int j = 0; j < Rounds; ++j)
                {
                    ExAcquireFastMutex(&first_);
                    ++counter;
                    ExReleaseFastMutex(&first_);
                }
            });
    }
    for (std::thread& thread : threads)
    {
        thread.join();
    }
    EXPECT_EQ(4 * Rounds, counter);
    EXPECT_EQ(FM_LOCK_BIT, first_.Count);
}

TEST_F(FastMutex, AWaiterGetsItAndIsCounted)
{
    ExAcquireFastMutex(&first_);
    std::atomic<bool> got = false;
    std::thread waiter(
        [&]
        {
            ExAcquireFastMutex(&first_);
            got = true;
            ExReleaseFastMutex(&first_);
        });
    while (std::atomic_ref(first_.Contention).load() == 0)
    {
        std::this_thread::yield();
    }
    EXPECT_FALSE(got);
    ExReleaseFastMutex(&first_);
    waiter.join();
    EXPECT_TRUE(got);
    EXPECT_EQ(1u, first_.Contention);
}

TEST_F(FastMutex, KnowsWhatItHolds)
{
    EXPECT_FALSE(HoldsFastMutexIn(&first_, sizeof(first_)));
    ExAcquireFastMutex(&first_);
    EXPECT_TRUE(HoldsFastMutexIn(&first_, sizeof(first_)));
    EXPECT_TRUE(HoldsFastMutexIn(this, sizeof(*this)));
    EXPECT_FALSE(HoldsFastMutexIn(&second_, sizeof(second_)));
    ExReleaseFastMutex(&first_);
}

TEST_F(FastMutex, TheInnermostMayBeTakenInsideAnother)
{
    AllowInnermost(&third_);
    AcquireBoth(&first_, &third_);
    AcquireBoth(&second_, &third_);
    ExAcquireFastMutex(&third_);
    ExReleaseFastMutex(&third_);
    EXPECT_EQ(PASSIVE_LEVEL, CurrentIrql());
}

TEST_F(FastMutex, TheInnermostCanBeLearnt)
{
    LearnInnermost();
    AcquireBoth(&first_, &third_);
    AcquireBoth(&second_, &third_);
    EXPECT_DEATH(AcquireBoth(&first_, &second_), "fast-mutex-order");
}

TEST_F(FastMutex, OrderDeath)
{
    EXPECT_DEATH(AcquireBoth(&first_, &second_), "fast-mutex-order");
    AllowInnermost(&third_);
    EXPECT_DEATH(AcquireBoth(&first_, &second_), "fast-mutex-order");
    EXPECT_DEATH(AcquireBoth(&third_, &first_), "fast-mutex-order");
    AllowInnermost(&second_);
    EXPECT_DEATH(AcquireBoth(&third_, &second_), "fast-mutex-order");
    EXPECT_DEATH(
        {
            ExAcquireFastMutex(&first_);
            AcquireBoth(&second_, &third_);
        },
        "fast-mutex-order");
    ResetInnermost();
    EXPECT_DEATH(AcquireBoth(&first_, &third_), "fast-mutex-order");
}

TEST_F(FastMutex, OwnerDeath)
{
    EXPECT_DEATH(AcquireBoth(&first_, &first_), "fast-mutex-recursive");
    EXPECT_DEATH(ExReleaseFastMutex(&first_), "fast-mutex-not-owned");
    ExAcquireFastMutex(&first_);
    EXPECT_DEATH(std::thread([&] { ExReleaseFastMutex(&first_); }).join(), "fast-mutex-not-owned");
    ExReleaseFastMutex(&first_);
    EXPECT_DEATH(std::thread([&] { ExAcquireFastMutex(&first_); }).join(), "fast-mutex-thread-end");
}

TEST_F(FastMutex, LevelDeath)
{
    EXPECT_DEATH(
        {
            RaisedIrql dispatch(DISPATCH_LEVEL);
            ExAcquireFastMutex(&first_);
        },
        "irql-too-high: ExAcquireFastMutex");
    EXPECT_DEATH(
        {
            ExAcquireFastMutex(&first_);
            SetIrql(DISPATCH_LEVEL);
            ExReleaseFastMutex(&first_);
        },
        "fast-mutex-irql");
    EXPECT_DEATH(
        {
            ExAcquireFastMutex(&first_);
            SetIrql(PASSIVE_LEVEL);
        },
        "irql-below-fast-mutex");
}

TEST_F(FastMutex, ReleaseOutOfOrderDeath)
{
    AllowInnermost(&third_);
    EXPECT_DEATH(
        {
            ExAcquireFastMutex(&first_);
            ExAcquireFastMutex(&third_);
            ExReleaseFastMutex(&first_);
        },
        "irql-below-fast-mutex");
}

TEST_F(FastMutex, UninitialisedDeath)
{
    FAST_MUTEX mutex;
    for (int fill : {0x00, 0x01, 0xA5, 0xDD})
    {
        memset(&mutex, fill, sizeof(mutex));
        EXPECT_DEATH(ExAcquireFastMutex(&mutex), "fast-mutex-not-initialised: ExAcquireFastMutex") << fill;
        EXPECT_DEATH(ExReleaseFastMutex(&mutex), "fast-mutex-not-initialised: ExReleaseFastMutex") << fill;
    }
    memcpy(&mutex, &first_, sizeof(mutex));
    EXPECT_DEATH(ExAcquireFastMutex(&mutex), "fast-mutex-not-initialised");
    memcpy(&mutex, &first_, sizeof(mutex));
    ExInitializeFastMutex(&mutex);
    mutex.Count = 2;
    EXPECT_DEATH(ExAcquireFastMutex(&mutex), "fast-mutex-not-initialised");
}
}
}
