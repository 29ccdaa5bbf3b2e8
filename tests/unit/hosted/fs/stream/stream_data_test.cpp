#include "tests/unit/hosted/fs/volume_fixture.h"

#include "hosted/ke/user_access.h"

namespace hosted
{
namespace
{
using FileTransfer = VolumeTest;
using Paging = std::vector<PagingOperation>;

TEST_F(FileTransfer, CachedWritesReachTheDiskWhenFlushed)
{
    PFILE_OBJECT file = Open(L"\\a");
    Write(file, 0, "attack at dawn");
    EXPECT_EQ(SizeOf(file), 14);
    EXPECT_EQ(OnDisk(L"\\a"), std::string(14, '\0'));
    EXPECT_EQ(Read(file, 7, 100), "at dawn");
    EXPECT_EQ(FlushFile(file), STATUS_SUCCESS);
    EXPECT_EQ(OnDisk(L"\\a"), "attack at dawn");
    EXPECT_EQ(Read(file, 14, 1), "");
    CloseFile(file);
}

TEST_F(FileTransfer, WritesAppendAndGapsAreZero)
{
    PFILE_OBJECT file = Open(L"\\a");
    Write(file, -1, "one");
    Write(file, -1, "two");
    Write(file, 10000, "x");
    EXPECT_EQ(Read(file, 0, 8), std::string("onetwo\0\0", 8));
    EXPECT_EQ(Read(file, 9996, 20), std::string("\0\0\0\0x", 5));
    FlushFile(file);
    EXPECT_EQ(OnDisk(L"\\a"), "onetwo" + std::string(9994, '\0') + "x");
    CloseFile(file);
}

TEST_F(FileTransfer, DirectoriesHaveNoBytes)
{
    PFILE_OBJECT root = OpenDirectory(L"\\");
    IO_STATUS_BLOCK status;
    char byte;
    EXPECT_EQ(ReadFile(root, 0, &byte, 1, &status), STATUS_INVALID_DEVICE_REQUEST);
    CloseFile(root);
}

TEST_F(FileTransfer, NonCachedTransfersAreSectors)
{
    PFILE_OBJECT cached = Open(L"\\a");
    Write(cached, 0, std::string(5000, 'c'));
    PFILE_OBJECT direct = Open(L"\\a", {.Options = FILE_NO_INTERMEDIATE_BUFFERING});
    IO_STATUS_BLOCK status;
    char bytes[1024];
    EXPECT_EQ(ReadFile(direct, 100, bytes, 512, &status), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(WriteFile(direct, 0, bytes, 100, &status), STATUS_INVALID_PARAMETER);
    // The cache is written before it is passed.
    EXPECT_EQ(Read(direct, 0, 512), std::string(512, 'c'));
    EXPECT_EQ(Read(direct, 4608, 512), std::string(392, 'c'));
    EXPECT_EQ(Read(direct, 5120, 512), "");
    // And forgotten where it would be stale.
    Write(direct, 512, std::string(512, 'd'));
    EXPECT_EQ(Read(cached, 511, 514), "c" + std::string(512, 'd') + "c");
    Write(direct, 8192, std::string(512, 'e'));
    EXPECT_EQ(SizeOf(cached), 8704);
    EXPECT_EQ(Read(cached, 4999, 3194), "c" + std::string(3192, '\0') + "e");
    CloseFile(direct);
    CloseFile(cached);
}

TEST_F(FileTransfer, ByteAddressableVolumesTakeAnyLength)
{
    Dismount();
    SectorSize = 1;
    Mount();
    PFILE_OBJECT direct = Open(L"\\a", {.Options = FILE_NO_INTERMEDIATE_BUFFERING});
    Write(direct, 3, "odd");
    EXPECT_EQ(Read(direct, 0, 100), std::string("\0\0\0odd", 6));
    EXPECT_EQ(OnDisk(L"\\a"), std::string("\0\0\0odd", 6));
    CloseFile(direct);
}

TEST_F(FileTransfer, WriteThroughReachesTheDiskAtOnce)
{
    PFILE_OBJECT file = Open(L"\\a", {.Options = FILE_WRITE_THROUGH});
    Write(file, 0, "now");
    EXPECT_EQ(OnDisk(L"\\a"), "now");
    Write(file, 3, "!");
    EXPECT_FALSE(Files->FastIoPossible(file, true, 1));
    EXPECT_TRUE(Files->FastIoPossible(file, false, 1));
    EXPECT_EQ(OnDisk(L"\\a"), "now!");
    CloseFile(file);
}

TEST_F(FileTransfer, FastIoComesAfterTheFirstCachedTransfer)
{
    PFILE_OBJECT file = Open(L"\\a");
    EXPECT_FALSE(Files->FastIoPossible(file, true, 1));
    Write(file, 0, "x");
    EXPECT_TRUE(Files->FastIoPossible(file, true, 1));
    PFILE_OBJECT direct = Open(L"\\a", {.Options = FILE_NO_INTERMEDIATE_BUFFERING});
    Read(direct, 0, 512);
    EXPECT_FALSE(Files->FastIoPossible(direct, false, 512));
    CloseFile(direct);
    CloseFile(file);
}

TEST_F(FileTransfer, FaultsInUserMemoryEndTransfersAndGrowNothing)
{
    PFILE_OBJECT file = Open(L"\\a");
    Write(file, 0, std::string(8192, 'a'));
    UserRegion region(2 * PAGE_SIZE);
    IO_STATUS_BLOCK status;
    region.Protect(false, false);
    EXPECT_EQ(WriteFile(file, 8000, region.Base(), 5000, &status), STATUS_ACCESS_VIOLATION);
    EXPECT_EQ(status.Information, 0u);
    EXPECT_EQ(SizeOf(file), 8192);
    EXPECT_EQ(ReadFile(file, 0, region.Base(), 100, &status), STATUS_ACCESS_VIOLATION);
    PFILE_OBJECT direct = Open(L"\\a", {.Options = FILE_NO_INTERMEDIATE_BUFFERING});
    EXPECT_EQ(WriteFile(direct, 8192, region.Base(), 512, &status), STATUS_ACCESS_VIOLATION);
    EXPECT_EQ(SizeOf(file), 8192);
    EXPECT_EQ(ReadFile(direct, 0, region.Base(), 512, &status), STATUS_ACCESS_VIOLATION);
    region.Protect(true, true);
    EXPECT_EQ(ReadFile(direct, 0, region.Base(), 8192, &status), STATUS_SUCCESS);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(region.Base()), 8000), std::string(8000, 'a'));
    CloseFile(direct);
    CloseFile(file);
}

TEST_F(FileTransfer, PagingNeverExtends)
{
    PFILE_OBJECT file = Open(L"\\a");
    Write(file, 0, std::string(4096 + 100, 'a'));
    FlushFile(file);
    alignas(PAGE_SIZE) static char pages[3 * PAGE_SIZE];
    IO_STATUS_BLOCK status;
    EXPECT_EQ(PagingRead(file, 0, pages, sizeof(pages), &status), STATUS_SUCCESS);
    EXPECT_EQ(status.Information, 4196u);
    EXPECT_EQ(PagingRead(file, 8192, pages, PAGE_SIZE, &status), STATUS_END_OF_FILE);
    std::fill(std::begin(pages), std::end(pages), 'p');
    EXPECT_EQ(PagingWrite(file, 4096, pages, 2 * PAGE_SIZE, &status), STATUS_SUCCESS);
    EXPECT_EQ(PagingWrite(file, 8192, pages, PAGE_SIZE, &status), STATUS_SUCCESS);
    EXPECT_EQ(OnDisk(L"\\a"), std::string(4096, 'a') + std::string(100, 'p'));
    CloseFile(file);
}

// The page with the new end is read under the old size and written under the new one, and not in between.
TEST_F(FileTransfer, TruncationRewritesTheNewEnd)
{
    MakeFile(L"\\a", std::string(10000, 'a'));
    LazyWrite();
    PFILE_OBJECT file = Open(L"\\a");
    Files->TakePaging();
    EXPECT_EQ(SetEndOfFile(file, 100), STATUS_SUCCESS);
    EXPECT_EQ(Files->TakePaging(), (Paging{{false, 0, 4096, 10000}}));
    EXPECT_EQ(FlushFile(file), STATUS_SUCCESS);
    EXPECT_EQ(Files->TakePaging(), (Paging{{true, 0, 4096, 100}}));
    EXPECT_EQ(OnDisk(L"\\a"), std::string(100, 'a'));
    CloseFile(file);
}

TEST_F(FileTransfer, ExtensionRewritesBothEnds)
{
    MakeFile(L"\\a", std::string(100, 'a'));
    LazyWrite();
    PFILE_OBJECT file = Open(L"\\a");
    Files->TakePaging();
    EXPECT_EQ(SetEndOfFile(file, 10000), STATUS_SUCCESS);
    EXPECT_EQ(Files->TakePaging(), (Paging{{false, 0, 4096, 100}}));
    EXPECT_EQ(FlushFile(file), STATUS_SUCCESS);
    EXPECT_EQ(Files->TakePaging(), (Paging{{true, 0, 4096, 10000}, {true, 8192, 4096, 10000}}));
    EXPECT_EQ(OnDisk(L"\\a"), std::string(100, 'a') + std::string(9900, '\0'));
    CloseFile(file);
}

TEST_F(FileTransfer, StrictVolumesLeaveTheEndsAlone)
{
    Dismount();
    Options.StrictEndOfFile = true;
    Mount();
    MakeFile(L"\\a", std::string(10000, 'a'));
    LazyWrite();
    PFILE_OBJECT file = Open(L"\\a");
    Files->TakePaging();
    EXPECT_EQ(SetEndOfFile(file, 100), STATUS_SUCCESS);
    EXPECT_EQ(SetEndOfFile(file, 5000), STATUS_SUCCESS);
    EXPECT_EQ(FlushFile(file), STATUS_SUCCESS);
    EXPECT_EQ(Files->TakePaging(), Paging{});
    EXPECT_EQ(Read(file, 0, 5000), std::string(100, 'a') + std::string(4900, '\0'));
    // A cached write past the end goes through the cache on any volume.
    Write(file, 6000, "x");
    Files->TakePaging();
    EXPECT_EQ(FlushFile(file), STATUS_SUCCESS);
    EXPECT_EQ(Files->TakePaging(), (Paging{{true, 4096, 4096, 6001}}));
    CloseFile(file);
}

TEST_F(FileTransfer, WhatWasWrittenPastTheEndThroughAViewDoesNotComeBack)
{
    PFILE_OBJECT file = Open(L"\\a");
    Write(file, 0, "abc");
    EXPECT_EQ(MappedWrite(CacheMapOf(file), 0, "ABCDEFGH", 8), STATUS_SUCCESS);
    EXPECT_EQ(SetEndOfFile(file, 8), STATUS_SUCCESS);
    EXPECT_EQ(Read(file, 0, 8), std::string("ABC\0\0\0\0\0", 8));
    CloseFile(file);
}

TEST_F(FileTransfer, AFailedPagingReadFailsTheTruncation)
{
    MakeFile(L"\\a", std::string(10000, 'a'));
    LazyWrite();
    PFILE_OBJECT file = Open(L"\\a");
    Files->FailReads = true;
    EXPECT_EQ(SetEndOfFile(file, 100), STATUS_UNEXPECTED_IO_ERROR);
    EXPECT_EQ(SizeOf(file), 10000);
    Files->FailReads = false;
    EXPECT_EQ(Read(file, 9999, 1), "a");
    CloseFile(file);
}
}
}
