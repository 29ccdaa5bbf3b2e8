// The cache as a file system uses it: which paging I/O it issues, and how much it holds.
#include "tests/unit/hosted/fs/volume_fixture.h"

#include "hosted/ke/user_access.h"

#include <chrono>
#include <latch>
#include <thread>

namespace hosted
{
namespace
{
class PageCache : public VolumeTest
{
protected:
    using Paging = std::vector<PagingOperation>;

    // A file of that many bytes of 'f' on disk, with nothing cached and nothing noted.
    PFILE_OBJECT OpenFresh(LONGLONG size)
    {
        MakeFile(L"\\a", std::string(static_cast<size_t>(size), 'f'));
        LazyWrite();
        Files->TakePaging();
        return Open(L"\\a");
    }
};

TEST_F(PageCache, RandomReadsFetchTheirPagesOnly)
{
    PFILE_OBJECT file = OpenFresh(100000);
    EXPECT_EQ(Read(file, 50000, 10), std::string(10, 'f'));
    EXPECT_EQ(Files->TakePaging(), (Paging{{false, 49152, 4096, 100000}}));
    EXPECT_EQ(Read(file, 45056, 12288).size(), 12288u);
    EXPECT_EQ(Files->TakePaging(), (Paging{{false, 45056, 4096, 100000}, {false, 53248, 4096, 100000}}));
    EXPECT_EQ(Read(file, 45056, 12288).size(), 12288u);
    EXPECT_EQ(Files->TakePaging(), Paging{});
    CloseFile(file);
}

TEST_F(PageCache, SequentialReadsFetchTheRestOfTheView)
{
    PFILE_OBJECT file = OpenFresh(300000);
    Read(file, 0, 100);
    // Whole pages, also where the file ends inside one; never past the file.
    EXPECT_EQ(Files->TakePaging(), (Paging{{false, 0, 262144, 300000}}));
    Read(file, 262144, 100);
    EXPECT_EQ(Files->TakePaging(), (Paging{{false, 262144, 4096, 300000}}));
    Read(file, 262244, 100);
    EXPECT_EQ(Files->TakePaging(), (Paging{{false, 266240, 36864, 300000}}));
    CloseFile(file);
}

TEST_F(PageCache, DirtyNeighboursAreWrittenTogether)
{
    PFILE_OBJECT file = OpenFresh(600000);
    Write(file, 0, std::string(600000, 'w'));
    EXPECT_EQ(Files->TakePaging(), Paging{});
    EXPECT_EQ(FlushFile(file), STATUS_SUCCESS);
    EXPECT_EQ(Files->TakePaging(),
        (Paging{{true, 0, 262144, 600000}, {true, 262144, 262144, 600000}, {true, 524288, 77824, 600000}}));
    Write(file, 4096, std::string(4096, 'x'));
    Write(file, 12288, std::string(4096, 'x'));
    FlushFile(file);
    EXPECT_EQ(Files->TakePaging(), (Paging{{true, 4096, 4096, 600000}, {true, 12288, 4096, 600000}}));
    EXPECT_EQ(FlushFile(file), STATUS_SUCCESS);
    EXPECT_EQ(Files->TakePaging(), Paging{});
    CloseFile(file);
}

TEST_F(PageCache, WholePagesAreNotReadBeforeTheyAreOverwritten)
{
    PFILE_OBJECT file = OpenFresh(100000);
    Write(file, 8192, std::string(8192, 'w'));
    Write(file, 98304, std::string(1696, 'w')); // as far as the file goes
    EXPECT_EQ(Files->TakePaging(), Paging{});
    Write(file, 20000, std::string(10000, 'w'));
    EXPECT_EQ(Files->TakePaging(), (Paging{{false, 16384, 4096, 100000}, {false, 28672, 4096, 100000}}));
    FlushFile(file);
    EXPECT_EQ(
        OnDisk(L"\\a").substr(16384, 14000), std::string(3616, 'f') + std::string(10000, 'w') + std::string(384, 'f'));
    CloseFile(file);
}

TEST_F(PageCache, ASmallAppendReadsTheOldEndOnce)
{
    PFILE_OBJECT file = OpenFresh(100);
    Write(file, -1, "1");
    Write(file, -1, "2");
    EXPECT_EQ(Files->TakePaging(), (Paging{{false, 0, 4096, 100}}));
    CloseFile(file);
}

TEST_F(PageCache, BytesPastTheTransferAreZero)
{
    PFILE_OBJECT file = OpenFresh(5000);
    std::string page(4096, '?');
    EXPECT_EQ(MappedRead(CacheMapOf(file), 4096, page.data(), 4096), STATUS_SUCCESS);
    EXPECT_EQ(page, std::string(904, 'f') + std::string(3192, '\0'));
    EXPECT_EQ(MappedRead(CacheMapOf(file), 8192, page.data(), 1), STATUS_IN_PAGE_ERROR);
    EXPECT_EQ(MappedWrite(CacheMapOf(file), 8191, page.data(), 2), STATUS_IN_PAGE_ERROR);
    EXPECT_EQ(MappedRead(CacheMapOf(file), -1, page.data(), 1), STATUS_IN_PAGE_ERROR);
    CloseFile(file);
}

TEST_F(PageCache, MappedViewsShareThePages)
{
    PFILE_OBJECT file = OpenFresh(5000);
    EXPECT_EQ(MappedWrite(CacheMapOf(file), 10, "mapped", 6), STATUS_SUCCESS);
    EXPECT_EQ(Read(file, 9, 8), "fmappedf");
    Write(file, 11, "ARE");
    char bytes[6];
    EXPECT_EQ(MappedRead(CacheMapOf(file), 10, bytes, 6), STATUS_SUCCESS);
    EXPECT_EQ(std::string(bytes, 6), "mAREed");
    FlushFile(file);
    EXPECT_EQ(OnDisk(L"\\a").substr(9, 8), "fmAREedf");
    CloseFile(file);
}

TEST_F(PageCache, FailedPagingIsReportedAndLosesNothing)
{
    PFILE_OBJECT file = OpenFresh(5000);
    IO_STATUS_BLOCK status;
    char bytes[10];
    Files->FailReads = true;
    EXPECT_EQ(ReadFile(file, 0, bytes, 10, &status), STATUS_UNEXPECTED_IO_ERROR);
    EXPECT_EQ(WriteFile(file, 10, bytes, 10, &status), STATUS_UNEXPECTED_IO_ERROR);
    EXPECT_EQ(MappedRead(CacheMapOf(file), 0, bytes, 1), STATUS_IN_PAGE_ERROR);
    Files->FailReads = false;
    Write(file, 0, "kept");
    Files->FailWrites = true;
    EXPECT_EQ(FlushFile(file), STATUS_UNEXPECTED_IO_ERROR);
    EXPECT_FALSE(CachePurge(CacheMapOf(file), 0, 0));
    LazyWrite();
    EXPECT_TRUE(CacheHasDirtyPages(CacheMapOf(file)));
    CloseFile(file);
    EXPECT_GT(CachedBytes(), 0u);
    Files->FailWrites = false;
    LazyWrite();
    EXPECT_EQ(CachedBytes(), 0u);
    EXPECT_EQ(OnDisk(L"\\a").substr(0, 5), "keptf");
}

TEST_F(PageCache, TheLazyWriterCanLeaveStreamsWithFewDirtyPages)
{
    PFILE_OBJECT file = Open(L"\\a");
    Write(file, 0, std::string(2 * PAGE_SIZE, 'x'));
    Files->TakePaging();
    LazyWrite(3);
    EXPECT_EQ(Files->TakePaging(), Paging{});
    EXPECT_TRUE(CacheHasDirtyPages(CacheMapOf(file)));
    LazyWrite(2);
    EXPECT_EQ(Files->TakePaging(), (Paging{{true, 0, 2 * PAGE_SIZE, 2 * PAGE_SIZE}}));
    CloseFile(file);
}

TEST_F(PageCache, WhatTheStoreDoesNotTakeCanBeGivenUp)
{
    PFILE_OBJECT file = Open(L"\\a");
    Write(file, 0, std::string(PAGE_SIZE + 1, 'x'));
    Files->FailWrites = true;
    CloseFile(file);
    LazyWrite();
    EXPECT_GT(CachedBytes(), 0u);
    EXPECT_EQ(DiscardDirtyPages(), SIZE_T{2 * PAGE_SIZE});
    EXPECT_EQ(CachedBytes(), 0u);
    EXPECT_EQ(DiscardDirtyPages(), SIZE_T{0});
    Files->FailWrites = false;
}

TEST_F(PageCache, TheLimitHolds)
{
    Model().CacheLimitBytes = 4 * CacheViewBytes;
    ResetPeakCachedBytes();
    PFILE_OBJECT file = Open(L"\\a");
    const std::string block(1 << 20, 'b');
    for (int i = 0; i < 8; ++i)
    {
        Write(file, static_cast<LONGLONG>(i) << 20, block);
        EXPECT_LE(CachedBytes(), Model().CacheLimitBytes);
    }
    for (int i = 0; i < 8; ++i)
    {
        EXPECT_TRUE(Read(file, static_cast<LONGLONG>(i) << 20, 1 << 20) == block);
    }
    EXPECT_LE(PeakCachedBytes(), Model().CacheLimitBytes + CacheViewBytes);
    CloseFile(file);
    EXPECT_LE(CachedBytes(), Model().CacheLimitBytes);
}

TEST_F(PageCache, TheColdestPagesGoFirst)
{
    MakeFile(L"\\other", std::string(100, 'o'));
    PFILE_OBJECT file = OpenFresh(4 * CacheViewBytes);
    PFILE_OBJECT other = Open(L"\\other");
    Model().CacheLimitBytes = 2 * CacheViewBytes;
    Read(other, 0, 10);
    Read(file, 0, 10);
    Read(other, 0, 10);
    Read(file, CacheViewBytes, 10);
    Files->TakePaging();
    Read(other, 0, 10);
    EXPECT_EQ(Files->TakePaging(), Paging{});
    Read(file, 0, 10);
    EXPECT_EQ(Files->TakePaging().size(), 1u);
    CloseFile(other);
    CloseFile(file);
}

// Those above the file system learn the new end last, and the page that holds it must not be written before.
TEST_F(PageCache, NothingIsWrittenWhileATruncationIsOnItsWayUp)
{
    PFILE_OBJECT file = OpenFresh(10000);
    PFILE_OBJECT other = Open(L"\\other");
    Model().CacheLimitBytes = 0;
    bool looked = false;
    Files->BeforeSettled = [&]
    {
        Files->TakePaging();
        Write(other, 0, "x");
        Read(file, 0, 1);
        LazyWrite();
        for (const PagingOperation& operation : Files->TakePaging())
        {
            EXPECT_FALSE(operation.Write && operation.FileSize == 100) << testing::PrintToString(operation);
        }
        EXPECT_TRUE(CacheHasDirtyPages(CacheMapOf(file)));
        looked = true;
    };
    EXPECT_EQ(SetEndOfFile(file, 100), STATUS_SUCCESS);
    EXPECT_TRUE(looked);
    LazyWrite();
    EXPECT_EQ(Files->TakePaging(), (Paging{{true, 0, 4096, 100}}));
    CloseFile(other);
    CloseFile(file);
}

TEST_F(PageCache, AFlushByAnotherThreadWaitsForATruncationOnItsWayUp)
{
    PFILE_OBJECT file = OpenFresh(10000);
    std::atomic<bool> settled = false;
    std::thread flushing;
    Files->BeforeSettled = [&]
    {
        Files->TakePaging();
        flushing = std::thread(
            [&]
            {
                EXPECT_EQ(FlushFile(file), STATUS_SUCCESS);
                EXPECT_TRUE(settled);
            });
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        EXPECT_EQ(Files->TakePaging(), Paging{});
        settled = true;
    };
    EXPECT_EQ(SetEndOfFile(file, 100), STATUS_SUCCESS);
    flushing.join();
    EXPECT_EQ(Files->TakePaging(), (Paging{{true, 0, 4096, 100}}));
    CloseFile(file);
}

TEST_F(PageCache, TheThreadThatTruncatesMayFlush)
{
    PFILE_OBJECT file = OpenFresh(10000);
    Files->BeforeSettled = [&]
    {
        Files->TakePaging();
        EXPECT_EQ(FlushFile(file), STATUS_SUCCESS);
        EXPECT_EQ(Files->TakePaging(), (Paging{{true, 0, 4096, 100}}));
    };
    EXPECT_EQ(SetEndOfFile(file, 100), STATUS_SUCCESS);
    EXPECT_FALSE(CacheHasDirtyPages(CacheMapOf(file)));
    CloseFile(file);
}

// Without this each page would wait for the one before.
TEST_F(PageCache, PagesOfOneStreamAreBroughtInSideBySide)
{
    PFILE_OBJECT file = OpenFresh(2 * CacheViewBytes);
    std::latch both(2);
    Files->BeforeRead = [&] { both.arrive_and_wait(); };
    std::thread second([&] { EXPECT_EQ(Read(file, CacheViewBytes, 10), std::string(10, 'f')); });
    EXPECT_EQ(Read(file, 100, 10), std::string(10, 'f'));
    second.join();
    Files->BeforeRead = nullptr;
    EXPECT_EQ(Files->TakePaging().size(), 2u);
    CloseFile(file);
}

TEST_F(PageCache, PurgeForgetsARange)
{
    PFILE_OBJECT file = OpenFresh(300000);
    Read(file, 0, 300000);
    Write(file, 5000, "dirty");
    Files->TakePaging();
    EXPECT_TRUE(CachePurge(CacheMapOf(file), 4096, 4096));
    EXPECT_EQ(Files->TakePaging(), (Paging{{true, 4096, 4096, 300000}}));
    Read(file, 0, 4096);
    EXPECT_EQ(Files->TakePaging(), Paging{});
    EXPECT_EQ(Read(file, 5000, 5), "dirty");
    EXPECT_EQ(Files->TakePaging(), (Paging{{false, 4096, 4096, 300000}}));
    EXPECT_FALSE(CacheIsEmpty(CacheMapOf(file)));
    EXPECT_TRUE(CachePurge(CacheMapOf(file), 0, 0));
    EXPECT_TRUE(CacheIsEmpty(CacheMapOf(file)));
    CloseFile(file);
}

TEST_F(PageCache, DirtyingAndTruncatingPages)
{
    PFILE_OBJECT file = OpenFresh(10000);
    CacheMap* map = CacheMapOf(file);
    EXPECT_EQ(CacheDirtyPageAt(map, 4096), STATUS_SUCCESS);
    EXPECT_EQ(CacheDirtyPageAt(map, 20000), STATUS_SUCCESS);
    EXPECT_FALSE(CacheHasDirtyPages(map));
    EXPECT_EQ(CacheDirtyPageAt(map, 5000), STATUS_SUCCESS);
    EXPECT_EQ(CacheDirtyPageAt(map, 10000), STATUS_SUCCESS);
    EXPECT_EQ(FlushFile(file), STATUS_SUCCESS);
    EXPECT_EQ(Files->TakePaging(),
        (Paging{{false, 4096, 4096, 10000}, {false, 8192, 4096, 10000}, {true, 4096, 8192, 10000}}));
    CacheTruncate(map, 5000);
    EXPECT_EQ(Read(file, 4990, 20), std::string(10, 'f') + std::string(10, '\0'));
    EXPECT_EQ(Files->TakePaging(), Paging{});
    EXPECT_EQ(Read(file, 8192, 10), std::string(10, 'f'));
    EXPECT_EQ(Files->TakePaging(), (Paging{{false, 8192, 4096, 10000}}));
    CloseFile(file);
}

TEST_F(PageCache, AFaultLeavesFreshPagesUnknown)
{
    PFILE_OBJECT file = OpenFresh(3 * PAGE_SIZE);
    UserRegion region(2 * PAGE_SIZE);
    IO_STATUS_BLOCK status;
    EXPECT_EQ(WriteFile(file, 0, region.Tail(PAGE_SIZE + 10), 3 * PAGE_SIZE, &status), STATUS_ACCESS_VIOLATION);
    EXPECT_EQ(Read(file, 0, 3 * PAGE_SIZE), std::string(3 * PAGE_SIZE, 'f'));
    CloseFile(file);
}
}
}
