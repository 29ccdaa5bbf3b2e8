#include "hosted/ex/pool.h"

#include "hosted/ke/fast_mutex.h"
#include "hosted/ex/pool_memory.h"
#include "hosted/ke/failure_injection.h"
#include "hosted/ke/irql.h"
#include "hosted/ke/system_model.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <thread>
#include <vector>

namespace hosted
{
namespace
{
using testing::HasSubstr;

constexpr ULONG Tag = 0x76726154; // "Tarv"
constexpr ULONG OtherTag = 0x6E6F4E00;
constexpr POOL_TYPE ZeroedPool = static_cast<POOL_TYPE>(NonPagedPool | POOL_ZERO_ALLOCATION);

class Pool : public testing::TestWithParam<bool>
{
protected:
    void SetUp() override
    {
        saved_ = Model();
        Model().GuardedPool = GetParam();
        ResetFailures();
        ASSERT_EQ("", DescribeLivePool());
    }
    void TearDown() override
    {
        EXPECT_EQ("", DescribeLivePool());
        Model() = saved_;
        ResetFailures();
    }

    static UCHAR* Allocate(SIZE_T bytes, POOL_TYPE type = NonPagedPool)
    {
        return static_cast<UCHAR*>(ExAllocatePoolWithTag(type, bytes, Tag));
    }
    static void Free(void* address) { ExFreePoolWithTag(address, Tag); }

private:
    SystemModel saved_;
};

TEST_P(Pool, IsFilledWithAPattern)
{
    for (POOL_TYPE type : {NonPagedPool, PagedPool, NonPagedPoolCacheAligned, ZeroedPool})
    {
        UCHAR* block = Allocate(100, type);
        for (int i = 0; i < 100; ++i)
        {
            ASSERT_EQ(PoolFreshByte, block[i]) << "type " << type;
        }
        Free(block);
    }
}

TEST_P(Pool, IsZeroedOnlyWhenAskedOfASystemThatDoes)
{
    Model().ZeroesPool = true;
    UCHAR* zeroed = Allocate(100, ZeroedPool);
    UCHAR* plain = Allocate(100);
    for (int i = 0; i < 100; ++i)
    {
        ASSERT_EQ(0, zeroed[i]);
        ASSERT_EQ(PoolFreshByte, plain[i]);
    }
    Free(zeroed);
    Free(plain);
}

TEST_P(Pool, IsAligned)
{
    for (SIZE_T bytes : {1u, 7u, 16u, 100u, 4095u})
    {
        UCHAR* block = Allocate(bytes);
        EXPECT_EQ(0u, reinterpret_cast<ULONG_PTR>(block) % 16) << bytes;
        Free(block);
    }
}

TEST_P(Pool, IsWritableToTheLastByte)
{
    for (SIZE_T bytes : {1u, 15u, 16u, 17u, 4096u, 100000u})
    {
        UCHAR* block = Allocate(bytes);
        std::fill(block, block + bytes, UCHAR{0xFF});
        EXPECT_EQ(bytes, PoolAllocationSize(block));
        Free(block);
    }
}

TEST_P(Pool, Accounts)
{
    ResetPeakPoolBytes();
    UCHAR* first = Allocate(1000);
    UCHAR* second = Allocate(176);
    void* other = ExAllocatePoolWithTag(PagedPool, 5, OtherTag);
    EXPECT_EQ(3u, LivePoolAllocations());
    EXPECT_EQ(1181u, LivePoolBytes());
    std::string text = DescribeLivePool();
    EXPECT_THAT(text, HasSubstr("Tarv: 2 allocations, 1176 bytes\n"));
    EXPECT_THAT(text, HasSubstr(".Non: 1 allocation, 5 bytes\n"));
    EXPECT_THAT(text, HasSubstr("  1000 bytes at "));
    EXPECT_THAT(text, HasSubstr("allocated by\n    "));
    Free(first);
    Free(second);
    ExFreePoolWithTag(other, OtherTag);
    EXPECT_EQ(0u, LivePoolAllocations());
    EXPECT_EQ(0u, LivePoolBytes());
    EXPECT_EQ(1181u, PeakPoolBytes());
    ResetPeakPoolBytes();
    EXPECT_EQ(0u, PeakPoolBytes());
}

TEST_P(Pool, UnwatchedItCountsAndFreesAllTheSame)
{
    Model().WatchedPool = false;
    UCHAR* zeroed = Allocate(100, ZeroedPool);
    UCHAR* block = Allocate(100);
    EXPECT_EQ(LivePoolAllocations(), 2u);
    EXPECT_THAT(DescribeLivePool(), testing::EndsWith("allocated by\n")) << "no stacks";
    block[99] = 1;
    Free(zeroed);
    Free(block);
    EXPECT_EQ(LivePoolAllocations(), 0u);
    EXPECT_FALSE(WasPoolBlockRetired(block));
}

TEST_P(Pool, KnowsItsAddresses)
{
    UCHAR* block = Allocate(32);
    EXPECT_TRUE(IsPoolAddress(block));
    EXPECT_TRUE(IsPoolAddress(block + 31));
    EXPECT_FALSE(IsPoolAddress(block + 32));
    EXPECT_FALSE(IsPoolAddress(block - 1));
    EXPECT_FALSE(IsPoolAddress(nullptr));
    Free(block);
    EXPECT_FALSE(IsPoolAddress(block));
}

TEST_P(Pool, FailsWhenAsked)
{
    FailRoutine("ExAllocatePoolWithTag");
    EXPECT_EQ(nullptr, Allocate(10));
    UCHAR* block = Allocate(10);
    EXPECT_NE(nullptr, block);
    Free(block);
}

TEST_P(Pool, LevelsThatAreAllowed)
{
    UCHAR* nonPaged;
    UCHAR* paged;
    {
        RaisedIrql apc(APC_LEVEL);
        paged = Allocate(10, PagedPool);
        RaisedIrql dispatch(DISPATCH_LEVEL);
        nonPaged = Allocate(10);
        EXPECT_NE(nonPaged, nullptr);
        Free(nonPaged);
    }
    EXPECT_NE(paged, nullptr);
    RaisedIrql apc(APC_LEVEL);
    Free(paged);
}

TEST_P(Pool, NoTagFreesAnyBlock)
{
    ExFreePoolWithTag(Allocate(10), 0);
    EXPECT_EQ(0u, LivePoolAllocations());
}

TEST_P(Pool, ManyThreads)
{
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i)
    {
        threads.emplace_back(
            []
            {
                std::vector<void*> blocks;
                for (SIZE_T j = 1; j <= 400; ++j)
                {
                    blocks.push_back(Allocate(j));
                    if (j % 3 == 0)
                    {
                        Free(blocks.front());
                        blocks.erase(blocks.begin());
                    }
                }
                for (void* block : blocks)
                {
                    Free(block);
                }
            });
    }
    for (std::thread& thread : threads)
    {
        thread.join();
    }
    EXPECT_EQ(0u, LivePoolAllocations());
}

TEST_P(Pool, AllocationRulesDeath)
{
    EXPECT_DEATH(Allocate(0), "pool-zero-bytes: .*Tarv");
    EXPECT_DEATH(ExAllocatePoolWithTag(NonPagedPool, 10, 0), "pool-zero-tag");
    EXPECT_DEATH(Allocate(10, static_cast<POOL_TYPE>(7)), "pool-type: pool type 0x7");
    EXPECT_DEATH(
        {
            RaisedIrql dispatch(DISPATCH_LEVEL);
            Allocate(10, PagedPool);
        },
        "irql-too-high: ExAllocatePoolWithTag");
    EXPECT_DEATH(
        {
            RaisedIrql high(DISPATCH_LEVEL + 1);
            Allocate(10);
        },
        "irql-too-high: ExAllocatePoolWithTag");
}

TEST_P(Pool, NoExecutePoolCameWithVersion62Death)
{
    EXPECT_DEATH(Allocate(10, NonPagedPoolNx), "pool-type: non-executable");
    Model().MinorVersion = 2;
    Free(Allocate(10, NonPagedPoolNx));
    UCHAR* aligned = Allocate(10, NonPagedPoolNxCacheAligned);
    EXPECT_EQ(0u, reinterpret_cast<ULONG_PTR>(aligned) % 16);
    Free(aligned);
    Model().MajorVersion = 10;
    Model().MinorVersion = 0;
    Free(Allocate(10, NonPagedPoolNx));
}

// As ExFreePool does: what the system allocated for its caller comes without a tag that the caller knows.
TEST_P(Pool, FreesWithoutTag)
{
    const SIZE_T before = LivePoolAllocations();
    ExFreePoolWithTag(Allocate(100), 0);
    EXPECT_EQ(LivePoolAllocations(), before);
}

TEST_P(Pool, FreeRulesDeath)
{
    UCHAR* block = Allocate(100);
    UCHAR* paged = Allocate(100, PagedPool);
    int local;
    EXPECT_DEATH(ExFreePoolWithTag(block, OtherTag), "pool-wrong-tag: .* has the tag Tarv and is freed with .Non");
    EXPECT_DEATH(Free(block + 16), "pool-foreign-free: .*but one contains it");
    EXPECT_DEATH(Free(&local), "pool-foreign-free");
    EXPECT_DEATH(Free(nullptr), "pool-foreign-free");
    EXPECT_DEATH(PoolAllocationSize(block + 1), "pool-not-allocated");
    EXPECT_DEATH(
        {
            RaisedIrql dispatch(DISPATCH_LEVEL);
            Free(paged);
        },
        "irql-too-high: ExFreePoolWithTag");
    Free(paged);
    Free(block);
    EXPECT_DEATH(Free(block), "pool-double-free");
}

TEST_P(Pool, FreedWithAHeldMutexInItDeath)
{
    auto* mutex = reinterpret_cast<PFAST_MUTEX>(Allocate(sizeof(FAST_MUTEX)));
    ExInitializeFastMutex(mutex);
    ExAcquireFastMutex(mutex);
    EXPECT_DEATH(Free(mutex), "pool-holds-fast-mutex");
    ExReleaseFastMutex(mutex);
    Free(mutex);
}

TEST_P(Pool, UseAfterFreeDeath)
{
    volatile UCHAR* block = Allocate(64);
    Free(const_cast<UCHAR*>(block));
    // Freed memory is inaccessible, watched by the sanitizer, or checked when it leaves the quarantine.
    EXPECT_DEATH(
        {
            block[8] = 1;
            for (int i = 0; i < 2000; ++i)
            {
                Free(Allocate(1));
            }
        },
        "");
}

TEST_P(Pool, OverrunDeath)
{
    volatile UCHAR* block = Allocate(64);
    EXPECT_DEATH(
        {
            block[64] = 1;
            Free(const_cast<UCHAR*>(block));
        },
        "");
    Free(const_cast<UCHAR*>(block));
}

INSTANTIATE_TEST_SUITE_P(
    Memory, Pool, testing::Bool(), [](const auto& info) { return info.param ? "Guarded" : "Plain"; });

TEST(PlainPool, LargeAndCacheAlignedBlocks)
{
    UCHAR* large = static_cast<UCHAR*>(ExAllocatePoolWithTag(NonPagedPool, PAGE_SIZE, Tag));
    UCHAR* aligned = static_cast<UCHAR*>(ExAllocatePoolWithTag(NonPagedPoolCacheAligned, 10, Tag));
    EXPECT_EQ(0u, reinterpret_cast<ULONG_PTR>(large) % PAGE_SIZE);
    EXPECT_EQ(0u, reinterpret_cast<ULONG_PTR>(aligned) % 64);
    ExFreePoolWithTag(large, Tag);
    ExFreePoolWithTag(aligned, Tag);
}

TEST(GuardedBlock, WatchesTheBytesBeforeTheGuardPage)
{
    PoolBlock block = AllocatePoolBlock(13, 16, true);
    EXPECT_EQ(block.Mapping + block.MappedBytes - PAGE_SIZE, block.Address + 16);
    EXPECT_TRUE(PoolBlockIntact(block));
    block.Address[13] ^= 1;
    EXPECT_FALSE(PoolBlockIntact(block));
    block.Address[13] ^= 1;
    block.Address[15] ^= 1;
    EXPECT_FALSE(PoolBlockIntact(block));
    RetirePoolBlock(block);
    EXPECT_TRUE(WasPoolBlockRetired(block.Address));
    EXPECT_DEATH(*const_cast<volatile UCHAR*>(block.Address) = 1, "");
}
}
}
