// The clock, and the page in which compiled code reads it.
#include "hosted/ke/irql.h"
#include "hosted/ke/shared_user_data.h"
#include "hosted/ke/system_model.h"
#include "hosted/ke/system_time.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <thread>

namespace hosted
{
namespace
{
class SystemTimeTest : public testing::Test
{
protected:
    ~SystemTimeTest() override
    {
        ResetSystemTime();
        Model() = SystemModel();
    }

    static LONGLONG Query()
    {
        LARGE_INTEGER time;
        KeQuerySystemTime(&time);
        return time.QuadPart;
    }

    // What compiled code loads.
    static LONGLONG OnThePage()
    {
        LONGLONG time;
        std::memcpy(&time, SharedUserDataPage() + SharedSystemTimeOffset, sizeof(time));
        return time;
    }
};

TEST_F(SystemTimeTest, StandsStillUntilItIsMoved)
{
    EXPECT_EQ(InitialSystemTime, Query());
    EXPECT_EQ(InitialSystemTime, Query());
    AdvanceSystemTime(5);
    EXPECT_EQ(InitialSystemTime + 5, Query());
    AdvanceSystemTime(-7);
    EXPECT_EQ(InitialSystemTime - 2, SystemTime());
    SetSystemTime(0x0123456789ABCDEF);
    EXPECT_EQ(0x0123456789ABCDEF, Query());
    ResetSystemTime();
    EXPECT_EQ(InitialSystemTime, Query());
}

TEST_F(SystemTimeTest, StandsOnTheSharedPageWhereWindowsHasIt)
{
    EXPECT_EQ(0u, reinterpret_cast<ULONG_PTR>(SharedUserDataPage()) % PAGE_SIZE);
    EXPECT_EQ(InitialSystemTime, OnThePage());
    SetSystemTime(0x0123456789ABCDEF);
    EXPECT_EQ(0x0123456789ABCDEF, OnThePage());
    LONG second;
    std::memcpy(&second, SharedUserDataPage() + SharedSystemTimeOffset + 8, sizeof(second));
    EXPECT_EQ(0x01234567, second) << "the high part a second time";
}

TEST_F(SystemTimeTest, IsReadWholeWhileItMoves)
{
    // The low part wraps at every second step, so that a torn read would be seen: as a time that never was, or as one
    // that has passed.
    constexpr LONGLONG Wrap = 1LL << 32;
    SetSystemTime(Wrap - 1);
    std::atomic<bool> done = false;
    std::thread mover(
        [&done]
        {
            for (LONGLONG wraps = 1; wraps <= 10000; ++wraps)
            {
                SetSystemTime(wraps * Wrap);
                SetSystemTime(wraps * Wrap + Wrap - 1);
            }
            done = true;
        });
    LONGLONG last = 0;
    while (!done)
    {
        const LONGLONG time = Query();
        EXPECT_TRUE(time % Wrap == 0 || time % Wrap == Wrap - 1) << std::hex << time;
        EXPECT_GE(time, last);
        last = time;
    }
    mover.join();
}

TEST_F(SystemTimeTest, NoMoveIsLost)
{
    const auto move = []
    {
        for (int i = 0; i < 5000; ++i)
        {
            AdvanceSystemTime(1);
        }
    };
    std::thread other(move);
    move();
    other.join();
    EXPECT_EQ(InitialSystemTime + 10000, SystemTime());
}

TEST_F(SystemTimeTest, LocalTimeIsLessTheBias)
{
    Model().TimeZoneBias = -36000000000; // an hour east
    LARGE_INTEGER time;
    LARGE_INTEGER local;
    time.QuadPart = InitialSystemTime;
    ExSystemTimeToLocalTime(&time, &local);
    EXPECT_EQ(InitialSystemTime + 36000000000, local.QuadPart);
    EXPECT_EQ(InitialSystemTime, time.QuadPart);
    ExSystemTimeToLocalTime(&time, &time);
    EXPECT_EQ(InitialSystemTime + 36000000000, time.QuadPart) << "in place";
}

TEST_F(SystemTimeTest, ReadableAtAnyLevel)
{
    const RaisedIrql raised(HIGH_LEVEL);
    LARGE_INTEGER time;
    KeQuerySystemTime(&time);
    ExSystemTimeToLocalTime(&time, &time);
    EXPECT_EQ(InitialSystemTime, time.QuadPart);
}
}
}
