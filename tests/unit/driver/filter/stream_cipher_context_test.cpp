#include "tests/unit/driver/filter/cipher_fixture.h"

namespace cipher_test
{
namespace
{
class StreamContext : public CipherTest
{
protected:
    // An open that the file system ends with that status.
    StreamCipherContext* ContextAfterOpen(NTSTATUS status, ULONG fileObjectFlags = 0)
    {
        PFILE_OBJECT file = OpenStream();
        PFLT_CONTEXT old = nullptr;
        EXPECT_EQ(FltGetStreamContext(lastInstance, file, &old), STATUS_NOT_FOUND);
        FLT_IO_PARAMETER_BLOCK block{};
        block.MajorFunction = IRP_MJ_CREATE;
        block.TargetFileObject = file;
        block.TargetInstance = lastInstance;
        ShownOperation shown{ShownSignature, lastInstance, block,
            {FLTFL_CALLBACK_DATA_IRP_OPERATION, nullptr, &shown.Block, {}, nullptr, {}, UserMode}};
        shown.Data.IoStatus = {{status}, FILE_OPENED};
        const ULONG flags = file->Flags;
        file->Flags |= fileObjectFlags;
        const FLT_RELATED_OBJECTS related = RelatedObjects(lastInstance, file);
        EXPECT_EQ(PostCreate(&shown.Data, &related, nullptr, 0), FLT_POSTOP_FINISHED_PROCESSING);
        EXPECT_EQ(shown.Data.IoStatus.Status, status);
        file->Flags = flags;
        return ContextOf(file);
    }
};

TEST_F(StreamContext, AnOpenGetsSchedulesOfTheKey)
{
    PFILE_OBJECT file = OpenStream();
    StreamCipherContext* context = ContextOf(file);
    ASSERT_NE(context, nullptr);
    EXPECT_EQ(context->TrackedFileSize, 0);
    const std::string plain = Pattern(64);
    std::string output(64, '\0');
    auto* at = reinterpret_cast<UCHAR*>(output.data());
    EncipherBlocks(context->EncryptionSchedule, reinterpret_cast<const UCHAR*>(plain.data()), at, 64);
    EXPECT_EQ(output, Crypt(key_, plain, true));
    DecipherBlocks(context->DecryptionSchedule, at, at, 64);
    EXPECT_EQ(output, plain);
}

TEST_F(StreamContext, OnlyAPlainSuccessGetsOne)
{
    wantContext = false;
    for (const NTSTATUS status : {STATUS_ACCESS_DENIED, STATUS_REPARSE, STATUS_BUFFER_OVERFLOW, STATUS_PENDING})
    {
        EXPECT_EQ(ContextAfterOpen(status), nullptr) << std::hex << status;
        CloseAll();
    }
    EXPECT_NE(ContextAfterOpen(STATUS_SUCCESS), nullptr);
}

TEST_F(StreamContext, PipesAndMailslotsGetNone)
{
    wantContext = false;
    EXPECT_EQ(ContextAfterOpen(STATUS_SUCCESS, FO_NAMED_PIPE), nullptr);
    EXPECT_EQ(ContextAfterOpen(STATUS_SUCCESS, FO_MAILSLOT), nullptr);
}

TEST_F(StreamContext, ADirectoryGetsNone)
{
    files_->Directory = true;
    EXPECT_EQ(ContextOf(OpenStream()), nullptr);
}

TEST_F(StreamContext, ASecondOpenReplacesTheFirstContext)
{
    PFILE_OBJECT first = OpenStream();
    Write(first, 0, Pattern(1000));
    ASSERT_EQ(ContextOf(first)->TrackedFileSize, 1000);
    SetKey(Pattern(32, 5), Mask);
    PFILE_OBJECT second = OpenStream();
    EXPECT_EQ(ContextOf(first), ContextOf(second));
    EXPECT_EQ(ContextOf(second)->TrackedFileSize, 0);
    SetSize(PAGE_SIZE);
    const std::string plain = Pattern(PAGE_SIZE);
    EXPECT_EQ(WritePage(first, 0, plain), Crypt(key_, plain, true)) << "under the key of the second open";
}

TEST_F(StreamContext, AContextKeepsItsKey)
{
    PFILE_OBJECT file = OpenStream();
    SetSize(PAGE_SIZE);
    const std::string old = key_;
    SetKey(Pattern(32, 5), Mask);
    const std::string plain = Pattern(PAGE_SIZE);
    EXPECT_EQ(WritePage(file, 0, plain), Crypt(old, plain, true));
}

TEST_F(StreamContext, FailuresLeaveTheStreamAlone)
{
    for (const char* routine : {"FltIsDirectory", "FltAllocateContext", "FltSetStreamContext"})
    {
        ResetFailures();
        FailRoutine(routine);
        EXPECT_EQ(ContextOf(OpenStream()), nullptr) << routine;
        EXPECT_EQ(InjectedFailures(), 1u) << routine;
        EXPECT_EQ(DebugPrints(), std::vector<std::string>{}) << routine;
        CloseAll();
    }
    ResetFailures();
    EXPECT_NE(ContextOf(OpenStream()), nullptr);
}

TEST_F(StreamContext, AKeyOfAnOddLengthLeavesTheSchedulesUnset)
{
    SetKey(Pattern(19), Mask);
    StreamCipherContext* context = ContextOf(OpenStream());
    ASSERT_NE(context, nullptr);
    EXPECT_FALSE(IsUsable(context->EncryptionSchedule));
    EXPECT_FALSE(IsUsable(context->DecryptionSchedule));
}
}
}
