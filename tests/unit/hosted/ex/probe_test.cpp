#include "hosted/ke/irql.h"
#include "hosted/ke/user_access.h"

#include <fault_guard.h>
#include <gtest/gtest.h>

namespace hosted
{
namespace
{
NTSTATUS Probe(volatile void* address, SIZE_T length, ULONG alignment)
{
    return TryAccess([&] { ProbeForWrite(address, length, alignment); });
}

UCHAR* At(ULONG_PTR address)
{
    return reinterpret_cast<UCHAR*>(address);
}

TEST(Probe, AcceptsWritableUserMemory)
{
    UserRegion region(3 * PAGE_SIZE);
    region.Base()[0] = 5;
    *region.Tail(1) = 6;
    EXPECT_EQ(STATUS_SUCCESS, Probe(region.Base(), region.Size(), 16));
    EXPECT_EQ(STATUS_SUCCESS, Probe(region.Tail(1), 1, 1));
    EXPECT_EQ(STATUS_SUCCESS, Probe(region.Base() + PAGE_SIZE - 4, 8, 4));
    EXPECT_EQ(5, region.Base()[0]);
    EXPECT_EQ(6, *region.Tail(1));
}

TEST(Probe, LengthZeroIsFineAnywhere)
{
    EXPECT_EQ(STATUS_SUCCESS, Probe(nullptr, 0, 4));
    EXPECT_EQ(STATUS_SUCCESS, Probe(At(1), 0, 4));
    EXPECT_EQ(STATUS_SUCCESS, Probe(At(0xFFFFFFFFFFFFFFFF), 0, 1));
}

TEST(Probe, Alignment)
{
    UserRegion region(PAGE_SIZE);
    for (ULONG alignment : {2u, 4u, 8u, 16u})
    {
        EXPECT_EQ(STATUS_SUCCESS, Probe(region.Base() + alignment, 1, alignment));
        EXPECT_EQ(STATUS_DATATYPE_MISALIGNMENT, Probe(region.Base() + alignment / 2, 1, alignment));
    }
    EXPECT_EQ(STATUS_DATATYPE_MISALIGNMENT, Probe(At(3), 1, 4)) << "checked before the address";
}

TEST(Probe, EndOfUserSpace)
{
    EXPECT_EQ(STATUS_ACCESS_VIOLATION, Probe(At(0x7FFFFFFF0000), 1, 1));
    EXPECT_EQ(STATUS_ACCESS_VIOLATION, Probe(At(0x7FFFFFFEFFFF), 2, 1));
    EXPECT_EQ(STATUS_ACCESS_VIOLATION, Probe(At(0xFFFF800000000000), 8, 1));
    UserRegion region(PAGE_SIZE);
    EXPECT_EQ(STATUS_ACCESS_VIOLATION, Probe(region.Base(), ~SIZE_T{0}, 1)) << "the range wraps";
}

TEST(Probe, MemoryThatCannotBeWritten)
{
    UserRegion region(2 * PAGE_SIZE);
    EXPECT_EQ(STATUS_ACCESS_VIOLATION, Probe(region.Tail(4), 5, 1));
    EXPECT_EQ(STATUS_ACCESS_VIOLATION, Probe(nullptr, 1, 1));
    region.Protect(true, false);
    EXPECT_EQ(STATUS_ACCESS_VIOLATION, Probe(region.Base(), 1, 1));
    region.Protect(false, false);
    EXPECT_EQ(STATUS_ACCESS_VIOLATION, Probe(region.Base(), 1, 1));
}

TEST(Probe, KernelMemory)
{
    ULONG local = 7;
    EXPECT_EQ(STATUS_ACCESS_VIOLATION, Probe(&local, sizeof(local), 4));
    EXPECT_EQ(7u, local);
}

TEST(ProbeDeath, Rules)
{
    UserRegion region(PAGE_SIZE);
    EXPECT_DEATH(ProbeForWrite(region.Base(), 1, 1), "probe-unguarded");
    EXPECT_DEATH(Probe(region.Base(), 1, 3), "probe-alignment");
    EXPECT_DEATH(Probe(region.Base(), 1, 0), "probe-alignment");
    EXPECT_DEATH(
        {
            RaisedIrql dispatch(DISPATCH_LEVEL);
            Probe(region.Base(), 1, 1);
        },
        "irql-too-high: ProbeForWrite");
}
}
}
