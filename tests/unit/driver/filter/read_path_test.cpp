#include "tests/unit/driver/filter/cipher_fixture.h"

namespace cipher_test
{
namespace
{
class ReadPath : public CipherTest
{
};

TEST_F(ReadPath, APageOfWhich4000BytesComeIsDecipheredInWholeBlocks)
{
    PFILE_OBJECT file = OpenStream();
    const std::string plain = Pattern(4000);
    EXPECT_EQ(ReadPage(file, Crypt(key_, plain, true)), plain);
    EXPECT_EQ(static_cast<UCHAR>(page_[4000]), 0xee);
}

TEST_F(ReadPath, TheLastFiveBytesOf4005AreUnmasked)
{
    PFILE_OBJECT file = OpenStream();
    const std::string plain = Pattern(4005);
    EXPECT_EQ(ReadPage(file, OnDisk(key_, Mask, plain)), plain);
    EXPECT_EQ(static_cast<UCHAR>(page_[4005]), 0xee);
}

TEST_F(ReadPath, ARegionNeverWrittenReadsAsZeros)
{
    PFILE_OBJECT file = OpenStream();
    EXPECT_EQ(ReadPage(file, std::string(4096, '\0')), std::string(4096, '\0'));
}

TEST_F(ReadPath, ANonCachedReadReturnsTheCipherText)
{
    PFILE_OBJECT file = OpenStream(FILE_NO_INTERMEDIATE_BUFFERING);
    disk_ = Crypt(key_, Pattern(512), true);
    std::string bytes(512, '\0');
    EXPECT_EQ(ReadFile(file, 0, bytes.data(), 512, &status_), STATUS_SUCCESS);
    EXPECT_EQ(bytes, disk_);
    EXPECT_EQ(seenBuffer_, bytes.data());
}

TEST_F(ReadPath, ACachedReadPassesUnchanged)
{
    PFILE_OBJECT file = OpenStream();
    disk_ = Pattern(100);
    std::string bytes(100, '\0');
    EXPECT_EQ(ReadFile(file, 0, bytes.data(), 100, &status_), STATUS_SUCCESS);
    EXPECT_EQ(bytes, disk_);
    EXPECT_EQ(seenBuffer_, bytes.data());
}

TEST_F(ReadPath, AFastReadIsNeverSwapped)
{
    PFILE_OBJECT file = OpenStream();
    int cacheMap = 0;
    files_->FastIo = true;
    file->PrivateCacheMap = &cacheMap;
    disk_ = Pattern(64);
    std::string bytes(64, '\0');
    EXPECT_EQ(ReadFile(file, 0, bytes.data(), 64, &status_), STATUS_SUCCESS);
    EXPECT_EQ(bytes, disk_);
    EXPECT_EQ(seenBuffer_, bytes.data());
    file->PrivateCacheMap = nullptr;
}

TEST_F(ReadPath, AStreamWithoutAContextPassesUnchanged)
{
    wantContext = false;
    PFILE_OBJECT file = OpenStream();
    const std::string bytes = Pattern(4096);
    EXPECT_EQ(ReadPage(file, bytes), bytes);
    EXPECT_EQ(seenBuffer_, page_);
}

TEST_F(ReadPath, NothingTransferredLeavesTheCallersBytes)
{
    PFILE_OBJECT file = OpenStream();
    EXPECT_EQ(ReadPage(file, ""), "");
    EXPECT_EQ(std::string(page_, PAGE_SIZE), std::string(PAGE_SIZE, '\xee'));
}

TEST_F(ReadPath, AFailedReadFreesWhatWasSwapped)
{
    PFILE_OBJECT file = OpenStream();
    answer_ = STATUS_IN_PAGE_ERROR;
    std::memset(page_, 0xee, sizeof(page_));
    const size_t before = LivePoolAllocations();
    EXPECT_EQ(PagingRead(file, 0, page_, PAGE_SIZE, &status_), STATUS_IN_PAGE_ERROR);
    EXPECT_NE(seenBuffer_, page_);
    EXPECT_EQ(std::string(page_, PAGE_SIZE), std::string(PAGE_SIZE, '\xee'));
    EXPECT_EQ(LivePoolAllocations(), before);
    EXPECT_EQ(DescribeLiveMdls(), "");
    answer_ = STATUS_SUCCESS;
}

TEST_F(ReadPath, AnyAllocationFailureLetsTheReadThroughAsItIs)
{
    PFILE_OBJECT file = OpenStream();
    const std::string plain = Pattern(4096);
    const std::string disk = Crypt(key_, plain, true);
    const size_t before = LivePoolAllocations();
    for (const Fault& fault : SwapFaults)
    {
        ResetFailures();
        FailRoutine(fault.Routine, fault.Number);
        EXPECT_EQ(ReadPage(file, disk), disk) << fault.Routine;
        EXPECT_EQ(InjectedFailures(), 1u) << fault.Routine;
        EXPECT_EQ(LivePoolAllocations(), before) << fault.Routine;
    }
    ResetFailures();
    EXPECT_EQ(ReadPage(file, disk), plain);
}

// A paging read of a length that is no multiple of the block, as the callbacks themselves are called for it.
TEST_F(ReadPath, AnOddLengthIsRoundedUpAndTheCallerGetsWhatItAskedFor)
{
    PFILE_OBJECT file = OpenStream();
    const std::string plain = Pattern(112);
    std::string caller(128, '\xee');
    FLT_IO_PARAMETER_BLOCK block{};
    block.MajorFunction = IRP_MJ_READ;
    block.IrpFlags = IRP_PAGING_IO | IRP_NOCACHE;
    block.TargetFileObject = file;
    block.TargetInstance = lastInstance;
    block.Parameters.Read.Length = 100;
    block.Parameters.Read.ReadBuffer = caller.data();
    ShownOperation shown{ShownSignature, lastInstance, block,
        {FLTFL_CALLBACK_DATA_IRP_OPERATION, nullptr, &shown.Block, {}, nullptr, {}, KernelMode}};
    const FLT_RELATED_OBJECTS related = RelatedObjects(lastInstance, file);
    PVOID context = nullptr;
    ASSERT_EQ(PreRead(&shown.Data, &related, &context), FLT_PREOP_SUCCESS_WITH_CALLBACK);
    auto& read = shown.Block.Parameters.Read;
    EXPECT_EQ(read.Length, 112u);
    ASSERT_NE(read.MdlAddress, nullptr);
    EXPECT_EQ(MmGetMdlByteCount(read.MdlAddress), 100u) << "the caller's length, not the rounded one";
    EXPECT_TRUE(shown.Data.Flags & FLTFL_CALLBACK_DATA_DIRTY);
    const PMDL mdl = read.MdlAddress;
    const std::string disk = Crypt(key_, plain, true);
    std::memcpy(read.ReadBuffer, disk.data(), disk.size());
    shown.Data.IoStatus = {{STATUS_SUCCESS}, 112};
    EXPECT_EQ(PostRead(&shown.Data, &related, context, 0), FLT_POSTOP_FINISHED_PROCESSING);
    EXPECT_EQ(caller, plain.substr(0, 100) + std::string(28, '\xee'));
    EXPECT_EQ(shown.Data.IoStatus.Information, 100u);
    EXPECT_EQ(read.Length, 100u);
    EXPECT_EQ(read.ReadBuffer, caller.data());
    EXPECT_EQ(read.MdlAddress, nullptr);
    IoFreeMdl(mdl);
}

TEST_F(ReadPath, ASwapWithoutABufferFailsTheRead)
{
    PFILE_OBJECT file = OpenStream();
    PFLT_CONTEXT stream = nullptr;
    ASSERT_EQ(FltGetStreamContext(lastInstance, file, &stream), STATUS_SUCCESS);
    auto swap = PoolPointer<ReadSwapContext>::Allocate();
    ASSERT_TRUE(swap);
    swap->Stream = static_cast<StreamCipherContext*>(stream);
    ShownOperation shown{ShownSignature, lastInstance, {},
        {FLTFL_CALLBACK_DATA_IRP_OPERATION, nullptr, &shown.Block, {}, nullptr, {}, KernelMode}};
    shown.Data.IoStatus = {{STATUS_SUCCESS}, 4096};
    const FLT_RELATED_OBJECTS related = RelatedObjects(lastInstance, file);
    EXPECT_EQ(PostRead(&shown.Data, &related, swap.Detach(), 0), FLT_POSTOP_FINISHED_PROCESSING);
    EXPECT_EQ(shown.Data.IoStatus.Status, STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_EQ(shown.Data.IoStatus.Information, 0u);
}
}
}
