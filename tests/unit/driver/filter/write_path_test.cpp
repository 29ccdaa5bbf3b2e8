#include "tests/unit/driver/filter/cipher_fixture.h"

namespace cipher_test
{
namespace
{
class WritePath : public CipherTest
{
};

TEST_F(WritePath, APagingWriteOfAWholePageIsEnciphered)
{
    PFILE_OBJECT file = OpenStream();
    SetSize(PAGE_SIZE);
    const std::string plain = Pattern(PAGE_SIZE);
    EXPECT_EQ(WritePage(file, 0, plain), Crypt(key_, plain, true));
    EXPECT_NE(seenBuffer_, page_);
}

TEST_F(WritePath, APublishedVectorReachesTheDiskForEveryKeyLength)
{
    for (const Vector& vector : Sp80038a)
    {
        SetKey(FromHex(vector.Key), Mask);
        PFILE_OBJECT file = OpenStream();
        SetSize(64);
        EXPECT_EQ(WritePage(file, 0, FromHex(vector.Plain)).substr(0, 64), FromHex(vector.Cipher));
        CloseAll();
    }
}

TEST_F(WritePath, OnlyThePartUpToTheEndOfFileIsTreated)
{
    PFILE_OBJECT file = OpenStream();
    SetSize(8292);
    const std::string plain = Pattern(PAGE_SIZE);
    const std::string disk = WritePage(file, 8192, plain);
    ASSERT_EQ(disk.size(), static_cast<size_t>(PAGE_SIZE));
    EXPECT_EQ(disk.substr(0, 100), OnDisk(key_, Mask, plain.substr(0, 100)));
    EXPECT_EQ(disk.substr(100), std::string(3996, '\0')) << "neither plain bytes nor old pool";
    EXPECT_EQ(ContextOf(file)->TrackedFileSize, 8292);
}

TEST_F(WritePath, AWriteThatEndsInsideABlockOfALongerFileIsLengthened)
{
    volume_->SectorSize = 1;
    PFILE_OBJECT file = OpenStream(FILE_NO_INTERMEDIATE_BUFFERING);
    SetSize(5000);
    alignas(PAGE_SIZE) static char bytes[PAGE_SIZE];
    const std::string plain = Pattern(112);
    std::memcpy(bytes, plain.data(), plain.size());
    IO_STATUS_BLOCK status{};
    ASSERT_EQ(WriteFile(file, 0, bytes, 100, &status), STATUS_SUCCESS);
    EXPECT_EQ(seenLength_, 112u);
    EXPECT_EQ(written_, Crypt(key_, plain, true)) << "seven blocks, with the bytes behind the caller's span";
}

TEST_F(WritePath, AWriteThatEndsInTheLastBlockIsNotLengthened)
{
    volume_->SectorSize = 1;
    PFILE_OBJECT file = OpenStream(FILE_NO_INTERMEDIATE_BUFFERING);
    const std::string plain = Pattern(100);
    for (const LONGLONG size : {100, 101, 111})
    {
        SetSize(size);
        EXPECT_EQ(Write(file, 0, plain), OnDisk(key_, Mask, plain)) << size;
        EXPECT_EQ(seenLength_, 100u) << size;
    }
    SetSize(112);
    EXPECT_EQ(Write(file, 0, plain).size(), 112u);
}

TEST_F(WritePath, AWriteAtOrPastTheEndOfFileIsEncipheredWhole)
{
    PFILE_OBJECT file = OpenStream(FILE_NO_INTERMEDIATE_BUFFERING);
    const std::string plain = Pattern(512);
    for (const LONGLONG size : {0, 100, 1024})
    {
        SetSize(size);
        EXPECT_EQ(Write(file, 1024, plain), Crypt(key_, plain, true)) << size;
    }
}

TEST_F(WritePath, ANonCachedWriteAcrossTheOldEndLosesThePartBehindIt)
{
    PFILE_OBJECT file = OpenStream(FILE_NO_INTERMEDIATE_BUFFERING);
    SetSize(600);
    const std::string plain = Pattern(512);
    const std::string disk = Write(file, 512, plain);
    EXPECT_EQ(disk.substr(0, 88), OnDisk(key_, Mask, plain.substr(0, 88)));
    EXPECT_EQ(disk.substr(88), std::string(424, '\0'));
}

TEST_F(WritePath, AMaskOfZeroStoresTheTrailingBytesInTheClear)
{
    SetKey(key_, 0);
    PFILE_OBJECT file = OpenStream();
    SetSize(100);
    const std::string plain = Pattern(PAGE_SIZE);
    EXPECT_EQ(WritePage(file, 0, plain).substr(96, 4), plain.substr(96, 4));
}

TEST_F(WritePath, ACachedWriteOnlyRaisesTheTrackedSize)
{
    PFILE_OBJECT file = OpenStream();
    const std::string plain = Pattern(100);
    EXPECT_EQ(Write(file, 50, plain), plain);
    EXPECT_EQ(ContextOf(file)->TrackedFileSize, 150);
    SetSize(4000);
    EXPECT_EQ(Write(file, 50, plain), plain);
    EXPECT_EQ(ContextOf(file)->TrackedFileSize, 4000) << "the file system's size when that is larger";
}

TEST_F(WritePath, TheTrackedSizeBoundsAPagingWriteToo)
{
    PFILE_OBJECT file = OpenStream();
    Write(file, 0, Pattern(40));
    SetSize(10);
    const std::string plain = Pattern(PAGE_SIZE, 4);
    const std::string disk = WritePage(file, 0, plain);
    EXPECT_EQ(disk.substr(0, 40), OnDisk(key_, Mask, plain.substr(0, 40)));
    EXPECT_EQ(disk.substr(40), std::string(PAGE_SIZE - 40, '\0'));
}

TEST_F(WritePath, AFastWriteIsNeverSwapped)
{
    PFILE_OBJECT file = OpenStream();
    int cacheMap = 0;
    files_->FastIo = true;
    file->PrivateCacheMap = &cacheMap;
    const std::string plain = Pattern(64);
    EXPECT_EQ(Write(file, 0, plain), plain);
    EXPECT_EQ(ContextOf(file)->TrackedFileSize, 0);
    file->PrivateCacheMap = nullptr;
}

TEST_F(WritePath, AStreamWithoutAContextPassesUnchanged)
{
    wantContext = false;
    PFILE_OBJECT file = OpenStream();
    SetSize(PAGE_SIZE);
    const std::string plain = Pattern(PAGE_SIZE);
    EXPECT_EQ(WritePage(file, 0, plain), plain);
    EXPECT_EQ(seenBuffer_, page_);
}

TEST_F(WritePath, AContextWithoutSchedulesPassesUnchanged)
{
    SetKey(Pattern(19), Mask);
    PFILE_OBJECT file = OpenStream();
    ASSERT_NE(ContextOf(file), nullptr);
    SetSize(100);
    const std::string plain = Pattern(PAGE_SIZE);
    EXPECT_EQ(WritePage(file, 0, plain), plain);
    EXPECT_EQ(ReadPage(file, plain), plain);
}

TEST_F(WritePath, AFailedWriteFreesWhatWasSwapped)
{
    PFILE_OBJECT file = OpenStream();
    SetSize(PAGE_SIZE);
    answer_ = STATUS_DISK_FULL;
    const size_t before = LivePoolAllocations();
    IO_STATUS_BLOCK status{};
    EXPECT_EQ(PagingWrite(file, 0, page_, PAGE_SIZE, &status), STATUS_DISK_FULL);
    EXPECT_EQ(LivePoolAllocations(), before);
    EXPECT_EQ(DescribeLiveMdls(), "");
    answer_ = STATUS_SUCCESS;
}

TEST_F(WritePath, AnyAllocationFailureLetsTheDataThroughAsItIs)
{
    PFILE_OBJECT file = OpenStream();
    SetSize(PAGE_SIZE);
    const std::string plain = Pattern(PAGE_SIZE);
    const size_t before = LivePoolAllocations();
    for (const Fault& fault : SwapFaults)
    {
        ResetFailures();
        FailRoutine(fault.Routine, fault.Number);
        ClearDebugPrints();
        EXPECT_EQ(WritePage(file, 0, plain), plain) << fault.Routine;
        EXPECT_EQ(InjectedFailures(), 1u) << fault.Routine;
        const std::vector<std::string> expected(fault.AfterMdl ? 1 : 0, "PreWrite - free\n");
        EXPECT_EQ(DebugPrints(), expected) << fault.Routine;
        EXPECT_EQ(LivePoolAllocations(), before) << fault.Routine;
    }
    ResetFailures();
    EXPECT_EQ(WritePage(file, 0, plain), Crypt(key_, plain, true));
}

TEST_F(WritePath, CompletionMayRunAtDispatchLevel)
{
    Model().CompletionIrql = DISPATCH_LEVEL;
    PFILE_OBJECT file = OpenStream();
    SetSize(PAGE_SIZE);
    const std::string plain = Pattern(PAGE_SIZE);
    const std::string disk = WritePage(file, 0, plain);
    EXPECT_EQ(disk, Crypt(key_, plain, true));
    EXPECT_EQ(ReadPage(file, disk), plain);
}

TEST_F(WritePath, ASuccessfulEndOfFileChangeSetsTheTrackedSize)
{
    PFILE_OBJECT file = OpenStream();
    Write(file, 0, Pattern(1000));
    ASSERT_EQ(ContextOf(file)->TrackedFileSize, 1000);
    EXPECT_EQ(SetEndOfFile(file, 10), STATUS_SUCCESS);
    EXPECT_EQ(ContextOf(file)->TrackedFileSize, 10);
    EXPECT_EQ(SetEndOfFile(file, 70000), STATUS_SUCCESS);
    EXPECT_EQ(ContextOf(file)->TrackedFileSize, 70000);
}

TEST_F(WritePath, AFailedEndOfFileChangeAndOtherClassesLeaveTheTrackedSize)
{
    PFILE_OBJECT file = OpenStream();
    Write(file, 0, Pattern(1000));
    answer_ = STATUS_DISK_FULL;
    EXPECT_EQ(SetEndOfFile(file, 10), STATUS_DISK_FULL);
    answer_ = STATUS_SUCCESS;
    EXPECT_EQ(ContextOf(file)->TrackedFileSize, 1000);
    LARGE_INTEGER size{};
    EXPECT_EQ(SetInformation(file, FileAllocationInformation, &size, sizeof(size)), STATUS_SUCCESS);
    EXPECT_EQ(ContextOf(file)->TrackedFileSize, 1000);
}
}
}
