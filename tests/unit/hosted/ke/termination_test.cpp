// Termination handlers: the cleanup runs once on every way out.
#include "hosted/ke/fast_mutex.h"
#include "hosted/ke/irql.h"
#include "hosted/ke/user_access.h"

#include <fault_guard.h>
#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

namespace hosted
{
namespace
{
void Poke(volatile UCHAR* address)
{
    *address = 1;
}

class Termination : public testing::Test
{
protected:
    UserRegion region_{PAGE_SIZE};
    UCHAR* const gone_ = region_.Tail(0);
    std::string order_;
};

TEST_F(Termination, RunsTheCleanupAfterAnUndisturbedBody)
{
    WithTermination([this] { order_ += "body "; }, [this] { order_ += "cleanup"; });
    EXPECT_EQ("body cleanup", order_);
    order_.clear();
    EXPECT_EQ(STATUS_SUCCESS, TryAccess(
                                  [this]
                                  {
                                      WithTermination(
                                          [this] { Poke(region_.Base()); }, [this] { order_ += "cleanup "; });
                                      order_ += "after";
                                  }));
    EXPECT_EQ("cleanup after", order_);
    EXPECT_EQ(1, region_.Base()[0]);
}

TEST_F(Termination, RunsTheCleanupWhenAFaultLeavesTheBody)
{
    EXPECT_EQ(STATUS_ACCESS_VIOLATION, TryAccess(
                                           [this]
                                           {
                                               WithTermination(
                                                   [this]
                                                   {
                                                       Poke(gone_);
                                                       order_ += "body ";
                                                   },
                                                   [this] { order_ += "cleanup"; });
                                               order_ += " after";
                                           }));
    EXPECT_EQ("cleanup", order_);
    EXPECT_FALSE(InGuardedCall());
}

TEST_F(Termination, RunsNestedCleanupsInnermostFirst)
{
    EXPECT_EQ(STATUS_ACCESS_VIOLATION,
        TryAccess(
            [this]
            {
                WithTermination(
                    [this]
                    {
                        WithTermination([this] { order_ += "done "; }, [this] { order_ += "0 "; });
                        WithTermination([this] { Poke(gone_); }, [this] { order_ += "1 "; });
                    },
                    [this] { order_ += "2"; });
            }));
    EXPECT_EQ("done 0 1 2", order_);
}

TEST_F(Termination, AnInnerGuardKeepsTheFaultFromTheOuterScopes)
{
    NTSTATUS inner = STATUS_SUCCESS;
    EXPECT_EQ(STATUS_SUCCESS,
        TryAccess(
            [&]
            {
                WithTermination(
                    [&]
                    {
                        inner = TryAccess(
                            [this] { WithTermination([this] { Poke(gone_); }, [this] { order_ += "inner "; }); });
                        order_ += "caught ";
                    },
                    [this] { order_ += "outer"; });
            }));
    EXPECT_EQ(STATUS_ACCESS_VIOLATION, inner);
    EXPECT_EQ("inner caught outer", order_);
}

TEST_F(Termination, ARaisedStatusLeavesLikeAFault)
{
    EXPECT_EQ(STATUS_DATATYPE_MISALIGNMENT,
        TryAccess([this]
            { WithTermination([] { RaiseStatus(STATUS_DATATYPE_MISALIGNMENT); }, [this] { order_ += "cleanup"; }); }));
    EXPECT_EQ("cleanup", order_);
}

TEST_F(Termination, TheCleanupSeesTheFrameThatItRefersTo)
{
    volatile int local = 0;
    EXPECT_EQ(STATUS_ACCESS_VIOLATION, TryAccess(
                                           [&]
                                           {
                                               int written[64];
                                               for (int i = 0; i < 64; ++i)
                                               {
                                                   written[i] = i;
                                               }
                                               WithTermination(
                                                   [&]
                                                   {
                                                       written[63] = 7;
                                                       Poke(gone_);
                                                   },
                                                   [&] { local = written[62] + written[63]; });
                                           }));
    EXPECT_EQ(69, local);
}

TEST_F(Termination, AFastMutexIsReleasedAndTheLevelComesBack)
{
    FAST_MUTEX mutex;
    ExInitializeFastMutex(&mutex);
    const auto poke = [&](UCHAR* address)
    {
        return TryAccess(
            [&mutex, address]
            {
                ExAcquireFastMutex(&mutex);
                WithTermination([address] { Poke(address); }, [&mutex] { ExReleaseFastMutex(&mutex); });
            });
    };
    EXPECT_EQ(STATUS_ACCESS_VIOLATION, poke(gone_));
    EXPECT_EQ(0, FastMutexesHeld());
    EXPECT_EQ(PASSIVE_LEVEL, CurrentIrql());
    EXPECT_EQ(STATUS_SUCCESS, poke(region_.Base()));
}

TEST_F(Termination, ManyThreadsFaultUnderOneLock)
{
    FAST_MUTEX mutex;
    ExInitializeFastMutex(&mutex);
    int count = 0; // guarded by mutex
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i)
    {
        threads.emplace_back(
            [&]
            {
                for (int round = 0; round < 200; ++round)
                {
                    EXPECT_EQ(STATUS_ACCESS_VIOLATION, TryAccess(
                                                           [&]
                                                           {
                                                               ExAcquireFastMutex(&mutex);
                                                               WithTermination(
                                                                   [&]
                                                                   {
                                                                       ++count;
                                                                       Poke(gone_);
                                                                   },
                                                                   [&] { ExReleaseFastMutex(&mutex); });
                                                           }));
                }
            });
    }
    for (std::thread& thread : threads)
    {
        thread.join();
    }
    EXPECT_EQ(800, count);
}

TEST_F(Termination, AFaultOutsideGuardedAccessIsNotCaught)
{
    EXPECT_DEATH(WithTermination([this] { Poke(gone_); }, [] {}), "");
}
}
}
