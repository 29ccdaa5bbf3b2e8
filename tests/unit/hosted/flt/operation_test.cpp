#include "tests/unit/hosted/flt/operation_fixture.h"

namespace flt_test
{
namespace
{
using FltOperation = OperationTest;

TEST_F(FltOperation, ShowsTheOperation)
{
    bool seen = false;
    callbacks.Pre = [&](PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS objects, PVOID* context)
    {
        seen = true;
        EXPECT_EQ(data->Flags, static_cast<ULONG>(FLTFL_CALLBACK_DATA_IRP_OPERATION));
        EXPECT_EQ(data->Thread, AsThread(CurrentThread()));
        EXPECT_EQ(data->RequestorMode, UserMode);
        EXPECT_EQ(data->Iopb->MajorFunction, IRP_MJ_READ);
        EXPECT_EQ(data->Iopb->IrpFlags, static_cast<ULONG>(IRP_READ_OPERATION | IRP_SYNCHRONOUS_API));
        EXPECT_EQ(data->Iopb->TargetFileObject, file_);
        EXPECT_EQ(data->Iopb->TargetInstance, instance_);
        EXPECT_EQ(data->Iopb->Parameters.Read.Length, sizeof(buffer_));
        EXPECT_EQ(data->Iopb->Parameters.Read.ReadBuffer, buffer_);
        EXPECT_EQ(data->Iopb->Parameters.Read.MdlAddress, nullptr);
        EXPECT_EQ(objects->Size, sizeof(FLT_RELATED_OBJECTS));
        EXPECT_EQ(objects->Filter, filter_);
        EXPECT_EQ(objects->Instance, instance_);
        EXPECT_EQ(objects->FileObject, file_);
        EXPECT_EQ(objects->Transaction, nullptr);
        EXPECT_EQ(*context, nullptr);
        EXPECT_EQ(FltGetRequestorProcessIdEx(data), PsGetCurrentProcessId());
        return FLT_PREOP_SUCCESS_NO_CALLBACK;
    };
    Post([](PFLT_CALLBACK_DATA, PVOID) { ADD_FAILURE() << "no callback was asked for"; });
    EXPECT_EQ(Read(), STATUS_SUCCESS);
    EXPECT_TRUE(seen);
    EXPECT_EQ(status_.Information, sizeof(buffer_));
    EXPECT_EQ(files_->Count(IRP_MJ_READ), 1u);
}

TEST_F(FltOperation, APagingFileIsToldByTheFlagBeforeAnythingElseKnowsIt)
{
    ULONG calls = 0;
    Pre(
        [&](PFLT_CALLBACK_DATA data, PVOID*)
        {
            if (data->Iopb->MajorFunction == IRP_MJ_CREATE)
            {
                ++calls;
                EXPECT_TRUE(data->Iopb->OperationFlags & SL_OPEN_PAGING_FILE);
                EXPECT_FALSE(FsRtlIsPagingFile(data->Iopb->TargetFileObject));
            }
            return FLT_PREOP_SUCCESS_NO_CALLBACK;
        });
    OpenRequest request;
    request.Path = L"\\??\\Q:\\pagefile.sys";
    request.StackFlags = SL_OPEN_PAGING_FILE;
    PFILE_OBJECT paging;
    ASSERT_EQ(OpenFile(request, &paging), STATUS_SUCCESS);
    EXPECT_EQ(calls, 1u);
    CloseFile(paging);
}

TEST_F(FltOperation, PostSeesTheResultAndMayChangeIt)
{
    int marker = 0;
    files_->Handler = [](FLT_IO_PARAMETER_BLOCK&, IO_STATUS_BLOCK& status)
    {
        status = {{STATUS_DISK_FULL}, 17};
        return STATUS_DISK_FULL;
    };
    Pre(
        [&](PFLT_CALLBACK_DATA, PVOID* context)
        {
            *context = &marker;
            return FLT_PREOP_SUCCESS_WITH_CALLBACK;
        });
    Post(
        [&](PFLT_CALLBACK_DATA data, PVOID context)
        {
            EXPECT_EQ(context, &marker);
            EXPECT_EQ(data->Flags,
                static_cast<ULONG>(FLTFL_CALLBACK_DATA_IRP_OPERATION | FLTFL_CALLBACK_DATA_POST_OPERATION));
            EXPECT_EQ(data->IoStatus.Status, STATUS_DISK_FULL);
            EXPECT_EQ(data->IoStatus.Information, 17u);
            data->IoStatus.Status = STATUS_INSUFFICIENT_RESOURCES;
            data->IoStatus.Information = 3;
        });
    EXPECT_EQ(Read(), STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_EQ(status_.Status, STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_EQ(status_.Information, 3u);
    files_->Handler = nullptr;
}

TEST_F(FltOperation, ChangesAreSettledOnceTheFilterSawThem)
{
    unsigned seen = 0;
    Pre([](PFLT_CALLBACK_DATA, PVOID*) { return FLT_PREOP_SUCCESS_WITH_CALLBACK; });
    Post(
        [&](PFLT_CALLBACK_DATA, PVOID)
        {
            EXPECT_EQ(files_->TimesSettled, seen);
            ++seen;
        });
    EXPECT_EQ(SetEndOfFile(file_, 100), STATUS_SUCCESS);
    EXPECT_EQ(files_->TimesSettled, 1u);
    EXPECT_EQ(WriteFile(file_, 0, buffer_, sizeof(buffer_), &status_), STATUS_SUCCESS);
    EXPECT_EQ(files_->TimesSettled, 2u);
    EXPECT_EQ(seen, 2u);
    callbacks = {};
    EXPECT_EQ(Read(), STATUS_SUCCESS);
    EXPECT_EQ(ReadPage(), STATUS_SUCCESS);
    EXPECT_EQ(PagingWrite(file_, 0, page_, PAGE_SIZE, &status_), STATUS_SUCCESS);
    EXPECT_EQ(files_->TimesSettled, 2u) << "neither do reads change anything nor what the cache writes";
}

TEST_F(FltOperation, CompletingKeepsItFromTheFileSystem)
{
    Pre(
        [](PFLT_CALLBACK_DATA data, PVOID*)
        {
            data->IoStatus.Status = STATUS_ACCESS_DENIED;
            data->IoStatus.Information = 0;
            FltSetCallbackDataDirty(data);
            return FLT_PREOP_COMPLETE;
        });
    Post([](PFLT_CALLBACK_DATA, PVOID) { ADD_FAILURE() << "the filter completed it itself"; });
    EXPECT_EQ(Read(), STATUS_ACCESS_DENIED);
    EXPECT_EQ(files_->Seen.size(), 0u);
    OpenRequest request;
    request.Path = L"\\??\\Q:\\other";
    PFILE_OBJECT other;
    EXPECT_EQ(OpenFile(request, &other), STATUS_ACCESS_DENIED);
    EXPECT_EQ(other, nullptr);
    EXPECT_EQ(files_->Seen.size(), 0u) << "neither created nor cleaned up nor closed";
}

TEST_F(FltOperation, ChangesCountOnlyWhenAnnounced)
{
    char mine[16];
    bool dirty = false;
    Pre(
        [&](PFLT_CALLBACK_DATA data, PVOID*)
        {
            data->Iopb->Parameters.Read.Length = sizeof(mine);
            data->Iopb->Parameters.Read.ReadBuffer = mine;
            data->Iopb->Parameters.Read.ByteOffset.QuadPart = 512;
            if (dirty)
            {
                FltSetCallbackDataDirty(data);
                EXPECT_TRUE(data->Flags & FLTFL_CALLBACK_DATA_DIRTY);
            }
            return FLT_PREOP_SUCCESS_WITH_CALLBACK;
        });
    Post(
        [&](PFLT_CALLBACK_DATA data, PVOID)
        {
            EXPECT_FALSE(data->Flags & FLTFL_CALLBACK_DATA_DIRTY);
            EXPECT_EQ(data->Iopb->Parameters.Read.ReadBuffer, buffer_) << "the caller's parameters are back";
            EXPECT_EQ(data->Iopb->Parameters.Read.Length, sizeof(buffer_));
        });
    EXPECT_EQ(Read(), STATUS_SUCCESS);
    EXPECT_EQ(files_->Last().Parameters.Read.Length, sizeof(buffer_));
    EXPECT_EQ(files_->Last().Parameters.Read.ReadBuffer, buffer_);
    EXPECT_EQ(files_->Last().Parameters.Read.ByteOffset.QuadPart, 0);
    dirty = true;
    EXPECT_EQ(Read(), STATUS_SUCCESS);
    EXPECT_EQ(files_->Last().Parameters.Read.Length, sizeof(mine));
    EXPECT_EQ(files_->Last().Parameters.Read.ReadBuffer, mine);
    EXPECT_EQ(files_->Last().Parameters.Read.ByteOffset.QuadPart, 512);
}

TEST_F(FltOperation, TheRequestIsLeftAsItWas)
{
    Pre(
        [](PFLT_CALLBACK_DATA data, PVOID*)
        {
            data->Iopb->Parameters.Read.Length = 5;
            FltSetCallbackDataDirty(data);
            return FLT_PREOP_SUCCESS_NO_CALLBACK;
        });
    FileRequest request = NewFileRequest(file_, IRP_MJ_READ, IRP_READ_OPERATION);
    request.Parameters.Parameters.Read.Length = 9;
    EXPECT_EQ(SendFileRequest(request, &status_), STATUS_SUCCESS);
    EXPECT_EQ(status_.Information, 5u);
    EXPECT_EQ(request.Parameters.Parameters.Read.Length, 9u);
    EXPECT_EQ(request.Parameters.TargetInstance, nullptr);
}

TEST_F(FltOperation, FreesASwappedMdlAfterThePostCallback)
{
    const ULONG length = PAGE_SIZE;
    Swap* swap = nullptr;
    PMDL callers = nullptr;
    Pre(
        [&](PFLT_CALLBACK_DATA data, PVOID* context)
        {
            callers = data->Iopb->Parameters.Read.MdlAddress;
            EXPECT_TRUE(callers->MdlFlags & MDL_PAGES_LOCKED);
            EXPECT_FALSE(callers->MdlFlags & MDL_MAPPED_TO_SYSTEM_VA);
            swap = new Swap(length);
            data->Iopb->Parameters.Read.ReadBuffer = swap->Buffer;
            data->Iopb->Parameters.Read.MdlAddress = swap->Mdl;
            FltSetCallbackDataDirty(data);
            *context = swap;
            return FLT_PREOP_SUCCESS_WITH_CALLBACK;
        });
    Post(
        [&](PFLT_CALLBACK_DATA data, PVOID)
        {
            EXPECT_TRUE(IsLiveMdl(swap->Mdl));
            EXPECT_EQ(data->Iopb->Parameters.Read.MdlAddress, callers);
            // Whatever the filter leaves here, its own MDL goes and the caller's stays.
            data->Iopb->Parameters.Read.MdlAddress = swap->Mdl;
        });
    EXPECT_EQ(ReadPage(), STATUS_SUCCESS);
    EXPECT_EQ(files_->Last().Parameters.Read.MdlAddress, swap->Mdl);
    EXPECT_EQ(files_->Last().Parameters.Read.ReadBuffer, swap->Buffer);
    EXPECT_FALSE(IsLiveMdl(swap->Mdl));
    EXPECT_EQ(DescribeLiveMdls(), "");
    ExFreePoolWithTag(swap->Buffer, ContextTag);
    delete swap;
}

TEST_F(FltOperation, FreesASwappedMdlWithoutPostCallback)
{
    std::unique_ptr<Swap> swap;
    Pre(
        [&](PFLT_CALLBACK_DATA data, PVOID*)
        {
            swap = std::make_unique<Swap>(PAGE_SIZE);
            data->Iopb->Parameters.Read.MdlAddress = swap->Mdl;
            FltSetCallbackDataDirty(data);
            return FLT_PREOP_SUCCESS_NO_CALLBACK;
        });
    EXPECT_EQ(ReadPage(), STATUS_SUCCESS);
    EXPECT_FALSE(IsLiveMdl(swap->Mdl));
    ExFreePoolWithTag(swap->Buffer, ContextTag);
}

TEST_F(FltOperation, KeepsAnMdlThatWasNotAnnounced)
{
    std::unique_ptr<Swap> swap;
    Pre(
        [&](PFLT_CALLBACK_DATA data, PVOID*)
        {
            swap = std::make_unique<Swap>(PAGE_SIZE);
            data->Iopb->Parameters.Read.MdlAddress = swap->Mdl;
            return FLT_PREOP_SUCCESS_WITH_CALLBACK;
        });
    EXPECT_EQ(ReadPage(), STATUS_SUCCESS);
    EXPECT_NE(files_->Last().Parameters.Read.MdlAddress, swap->Mdl);
    EXPECT_TRUE(IsLiveMdl(swap->Mdl));
    EXPECT_EQ(DescribeLiveMdls(), "MDL of 4096 bytes") << "the filter's leak shows";
    IoFreeMdl(swap->Mdl);
    ExFreePoolWithTag(swap->Buffer, ContextTag);
}

TEST_F(FltOperation, ASwappedMdlThatIsNotAliveIsABugCheck)
{
    Pre(
        [&](PFLT_CALLBACK_DATA data, PVOID*)
        {
            const Swap swap(PAGE_SIZE);
            IoFreeMdl(swap.Mdl);
            data->Iopb->Parameters.Read.MdlAddress = swap.Mdl;
            FltSetCallbackDataDirty(data);
            return FLT_PREOP_SUCCESS_NO_CALLBACK;
        });
    EXPECT_DEATH(ReadPage(), "FLT_SWAPPED_MDL");
}

TEST_F(FltOperation, FastIoIsTriedFirstAndCanBeRefused)
{
    files_->FastIo = true;
    std::vector<ULONG> flags;
    FLT_PREOP_CALLBACK_STATUS answer = FLT_PREOP_SUCCESS_NO_CALLBACK;
    Pre(
        [&](PFLT_CALLBACK_DATA data, PVOID*)
        {
            flags.push_back(data->Flags);
            EXPECT_EQ(data->Iopb->IrpFlags == 0, FLT_IS_FASTIO_OPERATION(data));
            return FLT_IS_FASTIO_OPERATION(data) ? answer : FLT_PREOP_SUCCESS_NO_CALLBACK;
        });
    EXPECT_EQ(Read(), STATUS_SUCCESS);
    EXPECT_EQ(flags, (std::vector<ULONG>{FLTFL_CALLBACK_DATA_FAST_IO_OPERATION}));
    EXPECT_EQ(files_->Count(IRP_MJ_READ), 1u);

    flags.clear();
    files_->Seen.clear();
    answer = FLT_PREOP_DISALLOW_FASTIO;
    EXPECT_EQ(WriteFile(file_, 0, buffer_, 10, &status_), STATUS_SUCCESS);
    EXPECT_EQ(flags, (std::vector<ULONG>{FLTFL_CALLBACK_DATA_FAST_IO_OPERATION, FLTFL_CALLBACK_DATA_IRP_OPERATION}));
    ASSERT_EQ(files_->Count(IRP_MJ_WRITE), 1u);
    EXPECT_EQ(files_->Last().IrpFlags, static_cast<ULONG>(IRP_WRITE_OPERATION | IRP_SYNCHRONOUS_API));
}

TEST_F(FltOperation, TheFileSystemMayRefuseFastIoToo)
{
    files_->FastIo = true;
    files_->Handler = [this](FLT_IO_PARAMETER_BLOCK& operation, IO_STATUS_BLOCK& status)
    {
        if (operation.MajorFunction == IRP_MJ_READ && operation.IrpFlags == 0)
        {
            return status.Status = STATUS_FLT_DISALLOW_FAST_IO;
        }
        return files_->Default(operation, status);
    };
    EXPECT_EQ(Read(), STATUS_SUCCESS);
    EXPECT_EQ(files_->Count(IRP_MJ_READ), 2u);
}

TEST_F(FltOperation, UncachedFilesAndFailuresOfFastIoAreNotTriedTwice)
{
    files_->FastIo = true;
    files_->Handler = [this](FLT_IO_PARAMETER_BLOCK& operation, IO_STATUS_BLOCK& status)
    {
        return operation.MajorFunction == IRP_MJ_READ ? status.Status = STATUS_END_OF_FILE
                                                      : files_->Default(operation, status);
    };
    EXPECT_EQ(Read(), STATUS_END_OF_FILE);
    EXPECT_EQ(files_->Count(IRP_MJ_READ), 1u);
    const PFILE_OBJECT direct = Open(L"\\??\\Q:\\direct", FILE_NO_INTERMEDIATE_BUFFERING);
    EXPECT_EQ(ReadFile(direct, 0, page_, 512, &status_), STATUS_END_OF_FILE);
    EXPECT_EQ(files_->Last().IrpFlags, static_cast<ULONG>(IRP_READ_OPERATION | IRP_NOCACHE));
    CloseFile(direct);
}

TEST_F(FltOperation, OperationsWithoutPreCallbackStillHaveTheirPost)
{
    int posts = 0;
    Pre(
        [](PFLT_CALLBACK_DATA, PVOID*)
        {
            ADD_FAILURE() << "flush has no pre-operation callback";
            return FLT_PREOP_SUCCESS_NO_CALLBACK;
        });
    Post(
        [&](PFLT_CALLBACK_DATA data, PVOID context)
        {
            ++posts;
            EXPECT_EQ(data->Iopb->MajorFunction, IRP_MJ_FLUSH_BUFFERS);
            EXPECT_EQ(context, nullptr);
        });
    EXPECT_EQ(FlushFile(file_), STATUS_SUCCESS);
    EXPECT_EQ(posts, 1);
}

TEST_F(FltOperation, AVolumeWithoutInstanceIsNotShown)
{
    Pre(
        [](PFLT_CALLBACK_DATA, PVOID*)
        {
            ADD_FAILURE() << "no instance";
            return FLT_PREOP_SUCCESS_NO_CALLBACK;
        });
    Unregister();
    EXPECT_EQ(Read(), STATUS_SUCCESS);
}
}
}
