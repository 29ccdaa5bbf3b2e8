#include "hosted/ke/user_access.h"

#include "hosted/ke/irql.h"

#include <fault_guard.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <sys/mman.h>
#include <thread>
#include <vector>

namespace hosted
{
namespace
{
// Writes that no compiler may leave out.
void Poke(volatile UCHAR* address)
{
    *address = 1;
}

UCHAR* At(ULONG_PTR address)
{
    return reinterpret_cast<UCHAR*>(address);
}

TEST(UserRegion, IsZeroFilledWholePages)
{
    UserRegion region(5000);
    EXPECT_EQ(8192u, region.Size());
    EXPECT_EQ(0u, reinterpret_cast<ULONG_PTR>(region.Base()) % PAGE_SIZE);
    EXPECT_EQ(region.Base() + 8192 - 10, region.Tail(10));
    for (SIZE_T i = 0; i < region.Size(); ++i)
    {
        ASSERT_EQ(0, region.Base()[i]);
    }
    EXPECT_EQ(4096u, UserRegion(0).Size());
}

TEST(UserRegion, MemoryIsZeroAgainWhenReused)
{
    // More than the whole space in turn, so that every page is used twice.
    for (int i = 0; i < 5; ++i)
    {
        UserRegion region(1ull << 30);
        ASSERT_EQ(0, region.Base()[0]);
        ASSERT_EQ(0, *region.Tail(1));
        region.Base()[0] = 7;
        *region.Tail(1) = 7;
    }
}

TEST(UserRegion, RegionsDoNotOverlap)
{
    std::vector<std::unique_ptr<UserRegion>> regions;
    for (SIZE_T i = 1; i < 50; ++i)
    {
        regions.push_back(std::make_unique<UserRegion>(i * 1000));
        memset(regions.back()->Base(), static_cast<int>(i), regions.back()->Size());
        if (i % 3 == 0)
        {
            regions.erase(regions.begin() + static_cast<long>(i / 3));
        }
    }
    for (const auto& region : regions)
    {
        EXPECT_EQ(region->Base()[0], *region->Tail(1));
        EXPECT_NE(0, region->Base()[0]);
    }
}

TEST(UserAddress, LiveRegionsAndTheLowest64K)
{
    EXPECT_TRUE(IsUserAddress(nullptr));
    EXPECT_TRUE(IsUserAddress(At(0xFFFF)));
    EXPECT_FALSE(IsUserAddress(At(0x10000)));
    int local;
    EXPECT_FALSE(IsUserAddress(&local));
    UCHAR* base;
    {
        UserRegion region(4096);
        base = region.Base();
        EXPECT_TRUE(IsUserAddress(base));
        EXPECT_TRUE(IsUserAddress(base + 4095));
        EXPECT_TRUE(IsUserAddress(base + 4096)) << "the guard page belongs to the region";
    }
    EXPECT_FALSE(IsUserAddress(base));
}

TEST(GuardedAccess, CompletesAnUndisturbedBody)
{
    UserRegion region(4096);
    int runs = 0;
    EXPECT_EQ(STATUS_SUCCESS, TryAccess(
                                  [&]
                                  {
                                      ++runs;
                                      EXPECT_TRUE(InGuardedCall());
                                      Poke(region.Base());
                                  }));
    EXPECT_EQ(1, runs);
    EXPECT_EQ(1, region.Base()[0]);
    EXPECT_FALSE(InGuardedCall());
}

TEST(GuardedAccess, TurnsAFaultIntoAStatus)
{
    UserRegion region(4096);
    volatile int reached = 0;
    EXPECT_EQ(STATUS_ACCESS_VIOLATION, TryAccess(
                                           [&]
                                           {
                                               Poke(region.Tail(1));
                                               reached = reached + 1;
                                               Poke(region.Tail(0));
                                               reached = reached + 1;
                                           }));
    EXPECT_EQ(1, reached);
    EXPECT_FALSE(InGuardedCall());
    EXPECT_EQ(STATUS_ACCESS_VIOLATION, TryAccess([] { Poke(At(0x1000)); }));
}

TEST(GuardedAccess, WorksAnyNumberOfTimes)
{
    UserRegion region(4096);
    for (int i = 0; i < 1000; ++i)
    {
        ASSERT_EQ(STATUS_ACCESS_VIOLATION, TryAccess([&] { Poke(region.Tail(0)); }));
    }
}

TEST(GuardedAccess, HonoursProtection)
{
    UserRegion region(4096);
    region.Base()[0] = 9;
    volatile UCHAR seen = 0;
    auto read = [&] { seen = *const_cast<volatile UCHAR*>(region.Base()); };
    auto write = [&] { Poke(region.Base()); };
    region.Protect(true, false);
    EXPECT_EQ(STATUS_SUCCESS, TryAccess(read));
    EXPECT_EQ(9, seen);
    EXPECT_EQ(STATUS_ACCESS_VIOLATION, TryAccess(write));
    region.Protect(false, false);
    EXPECT_EQ(STATUS_ACCESS_VIOLATION, TryAccess(read));
    region.Protect(false, true);
    EXPECT_EQ(STATUS_SUCCESS, TryAccess(write));
    region.Protect(true, true);
    EXPECT_EQ(1, region.Base()[0]);
}

TEST(UserRegion, AGuardIsOneFaultAndCountsAsAnAccessViolation)
{
    UserRegion region(2 * PAGE_SIZE);
    region.Guard();
    EXPECT_EQ(STATUS_GUARD_PAGE_VIOLATION,
        GuardedCall([](void* address) { Poke(static_cast<UCHAR*>(address)); }, region.Base()));
    EXPECT_EQ(STATUS_SUCCESS, TryAccess([&] { Poke(region.Base()); }));
    EXPECT_EQ(STATUS_ACCESS_VIOLATION, TryAccess([&] { Poke(region.Base() + PAGE_SIZE); }));
    EXPECT_EQ(STATUS_SUCCESS, TryAccess([&] { Poke(region.Base() + PAGE_SIZE); }));
}

TEST(GuardedAccess, APageThatCannotBeBroughtInIsItsOwnStatus)
{
    UserRegion region(4096);
    // A page of a file that has no contents there.
    FILE* file = tmpfile();
    ASSERT_NE(nullptr, file);
    void* mapped = mmap(region.Base(), 4096, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_FIXED, fileno(file), 0);
    ASSERT_EQ(region.Base(), mapped);
    EXPECT_EQ(STATUS_IN_PAGE_ERROR, TryAccess([&] { Poke(region.Base()); }));
    fclose(file);
}

TEST(GuardedAccess, CatchesFaultsInCopies)
{
    UserRegion region(4096);
    std::vector<UCHAR> source(100, 3);
    EXPECT_EQ(STATUS_ACCESS_VIOLATION, TryAccess([&] { memcpy(region.Tail(50), source.data(), source.size()); }));
    EXPECT_EQ(STATUS_ACCESS_VIOLATION, TryAccess([&] { memset(region.Tail(50), 1, 51); }));
    EXPECT_EQ(STATUS_SUCCESS, TryAccess([&] { memcpy(region.Tail(100), source.data(), source.size()); }));
    EXPECT_EQ(3, *region.Tail(1));
}

TEST(GuardedAccess, NestsAndTheInnermostCatches)
{
    UserRegion region(4096);
    NTSTATUS inner = STATUS_SUCCESS;
    EXPECT_EQ(STATUS_DATATYPE_MISALIGNMENT, TryAccess(
                                                [&]
                                                {
                                                    inner = TryAccess([&] { Poke(region.Tail(0)); });
                                                    EXPECT_TRUE(InGuardedCall());
                                                    RaiseStatus(STATUS_DATATYPE_MISALIGNMENT);
                                                }));
    EXPECT_EQ(STATUS_ACCESS_VIOLATION, inner);
}

TEST(GuardedAccess, WorksOnSeveralThreadsAtOnce)
{
    UserRegion region(4096);
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i)
    {
        threads.emplace_back(
            [&, i]
            {
                for (int j = 0; j < 200; ++j)
                {
                    EXPECT_EQ(STATUS_SUCCESS, TryAccess([&] { Poke(region.Base() + i); }));
                    EXPECT_EQ(STATUS_ACCESS_VIOLATION, TryAccess([&] { Poke(region.Tail(0) + i); }));
                }
            });
    }
    for (std::thread& thread : threads)
    {
        thread.join();
    }
}

TEST(GuardedAccessDeath, KernelFaultsAreNotCaught)
{
    UCHAR* stale;
    {
        UserRegion region(4096);
        stale = region.Base();
    }
    EXPECT_DEATH(TryAccess([&] { Poke(stale); }), "");
    // No such address: the processor reports 0 for it.
    EXPECT_DEATH(TryAccess([] { Poke(At(0xDEAD000000000000)); }), "");
}

TEST(GuardedAccessDeath, FaultsOutsideAreNotCaught)
{
    UserRegion region(4096);
    EXPECT_EQ(STATUS_SUCCESS, TryAccess([] {}));
    EXPECT_DEATH(Poke(region.Tail(0)), "");
    EXPECT_DEATH(RaiseStatus(STATUS_ACCESS_VIOLATION), "unhandled-exception: status C0000005");
}

TEST(GuardedAccessDeath, TheBodyMustHoldNothing)
{
    EXPECT_DEATH(TryAccess(
                     []
                     {
                         SetIrql(APC_LEVEL);
                         RaiseStatus(STATUS_ACCESS_VIOLATION);
                     }),
        "guarded-access-holds");
}
}
}
