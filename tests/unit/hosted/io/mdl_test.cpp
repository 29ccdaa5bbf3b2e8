#include "hosted/io/mdl.h"

#include "hosted/ke/failure_injection.h"
#include "hosted/ke/irql.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

namespace
{
using namespace hosted;

constexpr ULONG Tag = 'ldMT';

class MdlTest : public testing::Test
{
protected:
    void SetUp() override
    {
        ResetFailures();
        pool_ = static_cast<PUCHAR>(ExAllocatePoolWithTag(NonPagedPool, PoolBytes, Tag));
    }
    void TearDown() override
    {
        ResetFailures();
        ExFreePoolWithTag(pool_, Tag);
        EXPECT_EQ(DescribeLiveMdls(), "");
    }

    static PVOID Map(PMDL mdl)
    {
        return MmMapLockedPagesSpecifyCache(mdl, KernelMode, MmCached, nullptr, FALSE, NormalPagePriority);
    }

    static constexpr ULONG PoolBytes = 3 * PAGE_SIZE;
    PUCHAR pool_ = nullptr;
};

TEST_F(MdlTest, AllocationDescribesTheBuffer)
{
    PUCHAR address = pool_ + 100;
    const PMDL mdl = IoAllocateMdl(address, 2 * PAGE_SIZE, FALSE, FALSE, nullptr);
    ASSERT_NE(mdl, nullptr);
    EXPECT_EQ(mdl->Next, nullptr);
    EXPECT_EQ(MmGetMdlVirtualAddress(mdl), address);
    EXPECT_EQ(MmGetMdlByteCount(mdl), 2u * PAGE_SIZE);
    EXPECT_EQ(MmGetMdlByteOffset(mdl), BYTE_OFFSET(address));
    EXPECT_EQ(mdl->StartVa, PAGE_ALIGN(address));
    const ULONG pages = ADDRESS_AND_SIZE_TO_SPAN_PAGES(address, 2 * PAGE_SIZE);
    EXPECT_EQ(static_cast<ULONG>(mdl->Size), sizeof(MDL) + pages * sizeof(PFN_NUMBER));
    EXPECT_EQ(mdl->MdlFlags, MDL_ALLOCATED_FIXED_SIZE);
    EXPECT_TRUE(IsLiveMdl(mdl));
    EXPECT_EQ(DescribeLiveMdls(), "MDL of 8192 bytes");
    IoFreeMdl(mdl);
    EXPECT_FALSE(IsLiveMdl(mdl));
}

TEST_F(MdlTest, AllocationFails)
{
    EXPECT_EQ(IoAllocateMdl(pool_, 0x80000000u, FALSE, FALSE, nullptr), nullptr);
    FailRoutine("IoAllocateMdl");
    EXPECT_EQ(IoAllocateMdl(pool_, 16, FALSE, FALSE, nullptr), nullptr);
    EXPECT_EQ(InjectedFailures(), 1u);
}

TEST_F(MdlTest, GoesToItsRequest)
{
    IRP irp{};
    const PMDL first = IoAllocateMdl(pool_, 16, FALSE, FALSE, &irp);
    EXPECT_EQ(irp.MdlAddress, first);
    const PMDL second = IoAllocateMdl(pool_, 16, TRUE, FALSE, &irp);
    const PMDL third = IoAllocateMdl(pool_, 16, TRUE, TRUE, &irp);
    EXPECT_EQ(irp.MdlAddress, first);
    EXPECT_EQ(first->Next, second);
    EXPECT_EQ(second->Next, third);
    EXPECT_DEATH(IoAllocateMdl(pool_, 16, TRUE, FALSE, nullptr), "MDL_SECONDARY_WITHOUT_IRP");
    IoFreeMdl(first);
    IoFreeMdl(second);
    IoFreeMdl(third);
}

TEST_F(MdlTest, BuiltOverPoolHasASystemAddress)
{
    PUCHAR address = pool_ + 8;
    const PMDL mdl = IoAllocateMdl(address, PAGE_SIZE, FALSE, FALSE, nullptr);
    MmBuildMdlForNonPagedPool(mdl);
    EXPECT_TRUE(mdl->MdlFlags & MDL_SOURCE_IS_NONPAGED_POOL);
    EXPECT_EQ(mdl->MappedSystemVa, address);
    EXPECT_EQ(MdlSystemAddress(mdl), address);
    const auto* frames = reinterpret_cast<const PFN_NUMBER*>(mdl + 1);
    EXPECT_EQ(frames[0], reinterpret_cast<ULONG_PTR>(address) >> PAGE_SHIFT);
    EXPECT_DEATH(MmBuildMdlForNonPagedPool(mdl), "MDL_BUILT_TWICE");
    EXPECT_DEATH(Map(mdl), "MDL_PAGES_NOT_LOCKED");
    IoFreeMdl(mdl);
}

TEST_F(MdlTest, OnlyPoolCanBeBuiltOver)
{
    static char notPool[64];
    const PMDL foreign = IoAllocateMdl(notPool, sizeof(notPool), FALSE, FALSE, nullptr);
    EXPECT_DEATH(MmBuildMdlForNonPagedPool(foreign), "MDL_NOT_OVER_POOL");
    IoFreeMdl(foreign);
    const PMDL unbuilt = IoAllocateMdl(pool_, 16, FALSE, FALSE, nullptr);
    EXPECT_DEATH(MdlSystemAddress(unbuilt), "MDL_NOT_BUILT");
    EXPECT_DEATH(Map(unbuilt), "MDL_PAGES_NOT_LOCKED");
    IoFreeMdl(unbuilt);
}

TEST_F(MdlTest, LockedPagesAreMappedOnce)
{
    const PMDL mdl = LockPages(pool_, PAGE_SIZE, LockPurpose::DeviceFillsPages);
    EXPECT_TRUE(mdl->MdlFlags & MDL_PAGES_LOCKED);
    EXPECT_TRUE(mdl->MdlFlags & MDL_IO_PAGE_READ);
    EXPECT_FALSE(mdl->MdlFlags & MDL_MAPPED_TO_SYSTEM_VA);
    EXPECT_EQ(Map(mdl), pool_);
    EXPECT_TRUE(mdl->MdlFlags & MDL_MAPPED_TO_SYSTEM_VA);
    EXPECT_EQ(mdl->MappedSystemVa, pool_);
    EXPECT_DEATH(Map(mdl), "MDL_MAPPED_TWICE");
    EXPECT_EQ(MdlSystemAddress(mdl), pool_);
    EXPECT_DEATH(IoFreeMdl(mdl), "MDL_FREED_WITH_LOCKED_PAGES");
    EXPECT_EQ(DescribeLiveMdls(), "MDL of 4096 bytes (locked)");
    ReleaseMdl(mdl);

    const PMDL written = LockPages(pool_, PAGE_SIZE, LockPurpose::DeviceTakesPages);
    EXPECT_FALSE(written->MdlFlags & (MDL_IO_PAGE_READ | MDL_WRITE_OPERATION));
    EXPECT_EQ(MdlSystemAddress(written), pool_) << "maps by itself";
    EXPECT_TRUE(written->MdlFlags & MDL_MAPPED_TO_SYSTEM_VA);
    ReleaseMdl(written);
}

TEST_F(MdlTest, MappingFails)
{
    const PMDL mdl = LockPages(pool_, PAGE_SIZE, LockPurpose::DeviceFillsPages);
    FailRoutine("MmMapLockedPagesSpecifyCache", 1, true);
    EXPECT_EQ(Map(mdl), nullptr);
    EXPECT_FALSE(mdl->MdlFlags & MDL_MAPPED_TO_SYSTEM_VA);
    EXPECT_DEATH(MmMapLockedPagesSpecifyCache(mdl, KernelMode, MmCached, nullptr, TRUE, NormalPagePriority),
        "NO_MORE_SYSTEM_PTES");
    EXPECT_EQ(MdlSystemAddress(mdl), pool_) << "the hosted kernel's own use never fails";
    ReleaseMdl(mdl);
}

TEST_F(MdlTest, OnlyTheModelledMappings)
{
    const PMDL mdl = LockPages(pool_, PAGE_SIZE, LockPurpose::DeviceFillsPages);
    EXPECT_DEATH(
        MmMapLockedPagesSpecifyCache(mdl, UserMode, MmCached, nullptr, FALSE, NormalPagePriority), "MDL_MAPPING_KIND");
    EXPECT_DEATH(MmMapLockedPagesSpecifyCache(mdl, KernelMode, MmNonCached, nullptr, FALSE, NormalPagePriority),
        "MDL_MAPPING_KIND");
    ReleaseMdl(mdl);
}

TEST_F(MdlTest, UseAfterFreeIsABugCheck)
{
    const PMDL mdl = IoAllocateMdl(pool_, 16, FALSE, FALSE, nullptr);
    IoFreeMdl(mdl);
    EXPECT_DEATH(IoFreeMdl(mdl), "MDL_NOT_ALIVE");
    EXPECT_DEATH(MmBuildMdlForNonPagedPool(mdl), "MDL_NOT_ALIVE");
    EXPECT_DEATH(Map(mdl), "MDL_NOT_ALIVE");
    EXPECT_DEATH(ReleaseMdl(mdl), "MDL_NOT_ALIVE");
}

TEST_F(MdlTest, UpToDispatchLevel)
{
    const RaisedIrql raised(DISPATCH_LEVEL);
    const PMDL mdl = IoAllocateMdl(pool_, 16, FALSE, FALSE, nullptr);
    MmBuildMdlForNonPagedPool(mdl);
    {
        const RaisedIrql higher(HIGH_LEVEL);
        EXPECT_DEATH(IoFreeMdl(mdl), "IoFreeMdl");
    }
    IoFreeMdl(mdl);
}

TEST_F(MdlTest, ManyThreads)
{
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
    {
        threads.emplace_back(
            [this]
            {
                for (int i = 0; i < 500; ++i)
                {
                    const PMDL mdl = IoAllocateMdl(pool_, PAGE_SIZE, FALSE, FALSE, nullptr);
                    MmBuildMdlForNonPagedPool(mdl);
                    ASSERT_TRUE(IsLiveMdl(mdl));
                    IoFreeMdl(mdl);
                }
            });
    }
    for (std::thread& thread : threads)
    {
        thread.join();
    }
}
}
