// Where and how callbacks run, and what a filter must not do in them.
#include "tests/unit/hosted/flt/operation_fixture.h"

#include "hosted/ps/process_table.h"

#include <atomic>
#include <thread>

namespace flt_test
{
namespace
{
using FltCallbackRules = OperationTest;

TEST_F(FltCallbackRules, PostOfUncachedTransfersRunsAtTheCompletionLevel)
{
    Model().CompletionIrql = DISPATCH_LEVEL;
    std::vector<KIRQL> levels;
    Pre(
        [](PFLT_CALLBACK_DATA, PVOID*)
        {
            EXPECT_EQ(CurrentIrql(), PASSIVE_LEVEL);
            return FLT_PREOP_SUCCESS_WITH_CALLBACK;
        });
    Post([&](PFLT_CALLBACK_DATA, PVOID) { levels.push_back(CurrentIrql()); });
    EXPECT_EQ(Read(), STATUS_SUCCESS);
    EXPECT_EQ(ReadPage(), STATUS_SUCCESS);
    EXPECT_EQ(PagingWrite(file_, 0, page_, PAGE_SIZE, &status_), STATUS_SUCCESS);
    EXPECT_EQ(SetEndOfFile(file_, 10), STATUS_SUCCESS);
    EXPECT_EQ(levels, (std::vector<KIRQL>{PASSIVE_LEVEL, DISPATCH_LEVEL, DISPATCH_LEVEL, PASSIVE_LEVEL}));
    EXPECT_EQ(CurrentIrql(), PASSIVE_LEVEL);

    levels.clear();
    const PFILE_OBJECT direct = Open(L"\\??\\Q:\\direct", FILE_NO_INTERMEDIATE_BUFFERING);
    alignas(512) char sector[512];
    EXPECT_EQ(ReadFile(direct, 512, sector, sizeof(sector), &status_), STATUS_SUCCESS);
    EXPECT_EQ(levels, (std::vector<KIRQL>{PASSIVE_LEVEL, DISPATCH_LEVEL})) << "the create, then the read";
    callbacks.Pre = nullptr;
    CloseFile(direct);
}

TEST_F(FltCallbackRules, SynchronizedCompletionStaysWithTheRequestor)
{
    Model().CompletionIrql = DISPATCH_LEVEL;
    Pre([](PFLT_CALLBACK_DATA, PVOID*) { return FLT_PREOP_SYNCHRONIZE; });
    KIRQL level = HIGH_LEVEL;
    Post([&](PFLT_CALLBACK_DATA, PVOID) { level = CurrentIrql(); });
    EXPECT_EQ(ReadPage(), STATUS_SUCCESS);
    EXPECT_EQ(level, PASSIVE_LEVEL);
}

TEST_F(FltCallbackRules, ACreateIsShownInTheRequestorsProcess)
{
    Process* other = CreateProcessObject(AllocateProcessId(), SystemProcess()->Id, L"\\app.exe", L"app.exe");
    Thread thread{nullptr, other};
    callbacks.Pre = [&](PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS, PVOID*)
    {
        EXPECT_EQ(CurrentProcess(), other);
        EXPECT_EQ(FltGetRequestorProcessIdEx(data), other->Id);
        data->IoStatus.Status = STATUS_ACCESS_DENIED;
        return FLT_PREOP_COMPLETE;
    };
    FileRequest request = NewFileRequest(file_, IRP_MJ_CREATE, IRP_CREATE_OPERATION);
    request.Requestor = &thread;
    EXPECT_EQ(SendFileRequest(request, &status_), STATUS_ACCESS_DENIED);
    EXPECT_EQ(CurrentProcess(), SystemProcess());
    DereferenceObject(other);
}

TEST_F(FltCallbackRules, IllegalStatusesAreBugChecks)
{
    FLT_PREOP_CALLBACK_STATUS answer = FLT_PREOP_DISALLOW_FASTIO;
    Pre([&](PFLT_CALLBACK_DATA, PVOID*) { return answer; });
    EXPECT_DEATH(Read(), "FLT_PREOP_STATUS");
    answer = FLT_PREOP_PENDING;
    EXPECT_DEATH(Read(), "NOT_MODELLED");
    answer = static_cast<FLT_PREOP_CALLBACK_STATUS>(7);
    EXPECT_DEATH(Read(), "FLT_PREOP_STATUS");
    // The cleanup has no post-operation callback that could be called.
    answer = FLT_PREOP_SUCCESS_WITH_CALLBACK;
    EXPECT_DEATH(CloseFile(file_), "FLT_PREOP_STATUS");
    answer = FLT_PREOP_SYNCHRONIZE;
    files_->FastIo = true;
    EXPECT_DEATH(Read(), "FLT_PREOP_STATUS");
    files_->FastIo = false;
    answer = FLT_PREOP_SUCCESS_WITH_CALLBACK;
    callbacks.Post = [](PFLT_CALLBACK_DATA, PCFLT_RELATED_OBJECTS, PVOID)
    { return FLT_POSTOP_MORE_PROCESSING_REQUIRED; };
    EXPECT_DEATH(Read(), "NOT_MODELLED");
}

TEST_F(FltCallbackRules, RulesOfCallbacksAreBugChecks)
{
    Pre(
        [](PFLT_CALLBACK_DATA data, PVOID* context)
        {
            *context = data;
            return FLT_PREOP_SUCCESS_NO_CALLBACK;
        });
    EXPECT_DEATH(Read(), "FLT_COMPLETION_CONTEXT");
    Pre(
        [](PFLT_CALLBACK_DATA, PVOID*)
        {
            SetIrql(APC_LEVEL);
            return FLT_PREOP_SUCCESS_NO_CALLBACK;
        });
    EXPECT_DEATH(Read(), "FLT_CALLBACK_IRQL");
    FAST_MUTEX mutex;
    ExInitializeFastMutex(&mutex);
    Pre(
        [&](PFLT_CALLBACK_DATA, PVOID*)
        {
            ExAcquireFastMutex(&mutex);
            return FLT_PREOP_SUCCESS_NO_CALLBACK;
        });
    EXPECT_DEATH(Read(), "FLT_CALLBACK_MUTEX");
    Pre(
        [](PFLT_CALLBACK_DATA data, PVOID*)
        {
            data->Iopb->MajorFunction = IRP_MJ_WRITE;
            return FLT_PREOP_SUCCESS_NO_CALLBACK;
        });
    EXPECT_DEATH(Read(), "FLT_PARAMETERS");
    PFLT_CALLBACK_DATA kept = nullptr;
    FLT_CALLBACK_DATA* foreign = nullptr;
    EXPECT_DEATH(FltSetCallbackDataDirty(kept), "FLT_CALLBACK_DATA");
    struct
    {
        UCHAR Before[256];
        FLT_CALLBACK_DATA Data;
    } fake{{}, {0, nullptr, nullptr, {}, nullptr, {}, 0}};
    foreign = &fake.Data;
    EXPECT_DEATH(FltGetRequestorProcessIdEx(foreign), "FLT_CALLBACK_DATA");
}

TEST_F(FltCallbackRules, FailingAnOpenedCreateIsABugCheck)
{
    Pre([](PFLT_CALLBACK_DATA, PVOID*) { return FLT_PREOP_SUCCESS_WITH_CALLBACK; });
    Post([](PFLT_CALLBACK_DATA data, PVOID) { data->IoStatus.Status = STATUS_ACCESS_DENIED; });
    EXPECT_DEATH(Open(L"\\??\\Q:\\other"), "FLT_CREATE_NOT_CANCELLED");
}

TEST_F(FltCallbackRules, OperationsAboveTheirLevelAreBugChecks)
{
    FileRequest create = NewFileRequest(file_, IRP_MJ_CREATE, IRP_CREATE_OPERATION);
    FileRequest read = NewFileRequest(file_, IRP_MJ_READ, IRP_READ_OPERATION);
    EXPECT_DEATH(
        {
            const RaisedIrql raised(APC_LEVEL);
            SendFileRequest(create, &status_);
        },
        "sending an operation");
    EXPECT_DEATH(
        {
            const RaisedIrql raised(DISPATCH_LEVEL);
            SendFileRequest(read, &status_);
        },
        "sending an operation");
    const RaisedIrql raised(APC_LEVEL);
    EXPECT_EQ(ReadPage(), STATUS_SUCCESS);
}

TEST_F(FltCallbackRules, ManyThreadsWhileVolumesComeAndGo)
{
    constexpr int Rounds = 200;
    std::atomic<int> posts = 0;
    callbacks.Pre = [](PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS, PVOID* context)
    {
        if (data->Iopb->MajorFunction != IRP_MJ_READ)
        {
            return FLT_PREOP_SUCCESS_NO_CALLBACK;
        }
        auto* swap = new Swap(data->Iopb->Parameters.Read.Length);
        data->Iopb->Parameters.Read.MdlAddress = swap->Mdl;
        data->Iopb->Parameters.Read.ReadBuffer = swap->Buffer;
        FltSetCallbackDataDirty(data);
        *context = swap;
        return FLT_PREOP_SUCCESS_WITH_CALLBACK;
    };
    callbacks.Post = [&](PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS, PVOID context)
    {
        if (data->Iopb->MajorFunction == IRP_MJ_READ)
        {
            ExFreePoolWithTag(static_cast<Swap*>(context)->Buffer, ContextTag);
            delete static_cast<Swap*>(context);
            ++posts;
        }
        return FLT_POSTOP_FINISHED_PROCESSING;
    };
    std::vector<std::thread> threads;
    for (int t = 0; t < 3; ++t)
    {
        threads.emplace_back(
            [this]
            {
                alignas(PAGE_SIZE) char page[PAGE_SIZE];
                IO_STATUS_BLOCK status;
                for (int i = 0; i < Rounds; ++i)
                {
                    const PFILE_OBJECT file = Open();
                    ASSERT_EQ(PagingRead(file, 0, page, PAGE_SIZE, &status), STATUS_SUCCESS);
                    ASSERT_EQ(status.Information, size_t{PAGE_SIZE});
                    CloseFile(file);
                }
            });
    }
    callbacks.Setup = nullptr;
    for (int i = 0; i < 20; ++i)
    {
        DismountVolume(Mount(L"\\Device\\HarddiskVolume8", L"R:").Mounted);
    }
    for (std::thread& thread : threads)
    {
        thread.join();
    }
    EXPECT_EQ(posts, 3 * Rounds);
    EXPECT_EQ(DescribeLiveMdls(), "");
}
}
}
