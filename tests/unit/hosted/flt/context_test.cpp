#include "tests/unit/hosted/flt/filter_fixture.h"

#include <thread>

namespace flt_test
{
namespace
{
class FltContext : public FilterTest
{
protected:
    void SetUp() override
    {
        FilterTest::SetUp();
        file_ = Open();
        callbacks.Cleanup = [this](PFLT_CONTEXT context) { cleaned_.push_back(context); };
    }
    void TearDown() override
    {
        CloseFile(file_);
        FilterTest::TearDown();
    }

    PFLT_CONTEXT Allocate()
    {
        PFLT_CONTEXT context = nullptr;
        EXPECT_EQ(FltAllocateContext(filter_, FLT_STREAM_CONTEXT, ContextSize, NonPagedPool, &context), STATUS_SUCCESS);
        return context;
    }
    // Linked, and held by the stream only.
    PFLT_CONTEXT Attach()
    {
        const PFLT_CONTEXT context = Allocate();
        PFLT_CONTEXT old = this;
        EXPECT_EQ(
            FltSetStreamContext(instance_, file_, FLT_SET_CONTEXT_REPLACE_IF_EXISTS, context, &old), STATUS_SUCCESS);
        EXPECT_EQ(old, nullptr);
        FltReleaseContext(context);
        return context;
    }

    PFILE_OBJECT file_ = nullptr;
    std::vector<PFLT_CONTEXT> cleaned_;
};

using Contexts = std::vector<PFLT_CONTEXT>;

TEST_F(FltContext, AllocationMatchesTheRegistration)
{
    PFLT_CONTEXT context = this;
    EXPECT_EQ(FltAllocateContext(filter_, FLT_STREAM_CONTEXT, ContextSize + 1, NonPagedPool, &context),
        STATUS_FLT_CONTEXT_ALLOCATION_NOT_FOUND);
    EXPECT_EQ(context, nullptr);
    EXPECT_EQ(FltAllocateContext(filter_, 0x0010, ContextSize, NonPagedPool, &context),
        STATUS_FLT_CONTEXT_ALLOCATION_NOT_FOUND);
    EXPECT_DEATH(FltAllocateContext(filter_, FLT_STREAM_CONTEXT, ContextSize, PagedPool, &context), "FLT_CONTEXT_POOL");
    Model().MinorVersion = 2; // the first that has this kind of pool
    ASSERT_EQ(FltAllocateContext(filter_, FLT_STREAM_CONTEXT, ContextSize, NonPagedPoolNx, &context), STATUS_SUCCESS);
    EXPECT_EQ(PoolAllocationSize(context), ContextSize);
    const auto* bytes = static_cast<const UCHAR*>(context);
    EXPECT_TRUE(std::any_of(bytes, bytes + ContextSize, [](UCHAR byte) { return byte != 0; })) << "never zeroed";
    EXPECT_EQ(DescribeLiveFilterObjects(), "stream context with 1 references");
    FltReleaseContext(context);
    EXPECT_EQ(cleaned_, Contexts{context});
    EXPECT_FALSE(IsPoolAddress(context));
}

TEST_F(FltContext, FailsWhenToldTo)
{
    PFLT_CONTEXT context = this;
    FailRoutine("FltAllocateContext");
    EXPECT_EQ(FltAllocateContext(filter_, FLT_STREAM_CONTEXT, ContextSize, NonPagedPool, &context),
        STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_EQ(context, nullptr);
    FailRoutine("ExAllocatePoolWithTag");
    EXPECT_EQ(FltAllocateContext(filter_, FLT_STREAM_CONTEXT, ContextSize, NonPagedPool, &context),
        STATUS_INSUFFICIENT_RESOURCES);
    const PFLT_CONTEXT attached = Attach();
    FailRoutine("FltGetStreamContext");
    EXPECT_EQ(FltGetStreamContext(instance_, file_, &context), STATUS_NOT_FOUND);
    EXPECT_EQ(context, nullptr);
    FailRoutine("FltSetStreamContext");
    const PFLT_CONTEXT other = Allocate();
    PFLT_CONTEXT old = this;
    EXPECT_EQ(FltSetStreamContext(instance_, file_, FLT_SET_CONTEXT_REPLACE_IF_EXISTS, other, &old),
        STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_EQ(old, nullptr);
    FltReleaseContext(other);
    EXPECT_EQ(FltGetStreamContext(instance_, file_, &context), STATUS_SUCCESS);
    EXPECT_EQ(context, attached);
    FltReleaseContext(context);
}

TEST_F(FltContext, GetTakesAReference)
{
    PFLT_CONTEXT found = this;
    EXPECT_EQ(FltGetStreamContext(instance_, file_, &found), STATUS_NOT_FOUND);
    EXPECT_EQ(found, nullptr);
    const PFLT_CONTEXT context = Attach();
    EXPECT_TRUE(cleaned_.empty()) << "the stream keeps it";
    ASSERT_EQ(FltGetStreamContext(instance_, file_, &found), STATUS_SUCCESS);
    EXPECT_EQ(found, context);
    FilterStreamDeleted(&files_->Stream);
    EXPECT_TRUE(cleaned_.empty()) << "a reference outlives the stream";
    EXPECT_EQ(FltGetStreamContext(instance_, file_, &found), STATUS_NOT_FOUND);
    FltReleaseContext(context);
    EXPECT_EQ(cleaned_, Contexts{context});
}

TEST_F(FltContext, StreamsAreToldApart)
{
    const PFLT_CONTEXT context = Attach();
    FSRTL_COMMON_FCB_HEADER other{};
    const PFILE_OBJECT second = Open(L"\\??\\Q:\\second");
    PFLT_CONTEXT found;
    ASSERT_EQ(FltGetStreamContext(instance_, second, &found), STATUS_SUCCESS) << "the same stream, opened again";
    EXPECT_EQ(found, context);
    FltReleaseContext(found);
    second->FsContext = &other;
    EXPECT_EQ(FltGetStreamContext(instance_, second, &found), STATUS_NOT_FOUND);
    FilterStreamDeleted(&other);
    EXPECT_TRUE(cleaned_.empty());
    second->FsContext = nullptr;
    EXPECT_EQ(FltGetStreamContext(instance_, second, &found), STATUS_NOT_SUPPORTED);
    const PFLT_CONTEXT unattached = Allocate();
    EXPECT_EQ(FltSetStreamContext(instance_, second, FLT_SET_CONTEXT_REPLACE_IF_EXISTS, unattached, nullptr),
        STATUS_NOT_SUPPORTED);
    FltReleaseContext(unattached);
    CloseFile(second);
}

TEST_F(FltContext, ReplacingHandsTheOldOneBack)
{
    const PFLT_CONTEXT first = Attach();
    const PFLT_CONTEXT second = Allocate();
    PFLT_CONTEXT old = nullptr;
    ASSERT_EQ(FltSetStreamContext(instance_, file_, FLT_SET_CONTEXT_REPLACE_IF_EXISTS, second, &old), STATUS_SUCCESS);
    EXPECT_EQ(old, first);
    EXPECT_TRUE(cleaned_.empty());
    FltReleaseContext(old);
    EXPECT_EQ(cleaned_, Contexts{first});
    FltReleaseContext(second);
    EXPECT_EQ(cleaned_, Contexts{first});
    // Not asked for, the old one is given up.
    const PFLT_CONTEXT third = Allocate();
    ASSERT_EQ(FltSetStreamContext(instance_, file_, FLT_SET_CONTEXT_REPLACE_IF_EXISTS, third, nullptr), STATUS_SUCCESS);
    EXPECT_EQ(cleaned_, (Contexts{first, second}));
    FltReleaseContext(third);
    Unregister();
    EXPECT_EQ(cleaned_, (Contexts{first, second, third}));
}

TEST_F(FltContext, KeepingLeavesThePresentOne)
{
    const PFLT_CONTEXT first = Attach();
    const PFLT_CONTEXT second = Allocate();
    PFLT_CONTEXT old = nullptr;
    EXPECT_EQ(FltSetStreamContext(instance_, file_, FLT_SET_CONTEXT_KEEP_IF_EXISTS, second, &old),
        STATUS_FLT_CONTEXT_ALREADY_DEFINED);
    EXPECT_EQ(old, first);
    FltReleaseContext(old);
    EXPECT_EQ(FltSetStreamContext(instance_, file_, FLT_SET_CONTEXT_KEEP_IF_EXISTS, second, nullptr),
        STATUS_FLT_CONTEXT_ALREADY_DEFINED);
    FltReleaseContext(second);
    EXPECT_EQ(cleaned_, Contexts{second});
    FilterStreamDeleted(&files_->Stream);
    EXPECT_EQ(cleaned_, (Contexts{second, first}));
    const PFLT_CONTEXT third = Allocate();
    EXPECT_EQ(FltSetStreamContext(instance_, file_, FLT_SET_CONTEXT_KEEP_IF_EXISTS, third, &old), STATUS_SUCCESS);
    EXPECT_EQ(old, nullptr);
    FltReleaseContext(third);
}

TEST_F(FltContext, RefusesWrongParameters)
{
    EXPECT_EQ(FltSetStreamContext(instance_, file_, FLT_SET_CONTEXT_REPLACE_IF_EXISTS, nullptr, nullptr),
        STATUS_INVALID_PARAMETER);
    const PFLT_CONTEXT context = Attach();
    EXPECT_EQ(
        static_cast<ULONG>(FltSetStreamContext(instance_, file_, FLT_SET_CONTEXT_REPLACE_IF_EXISTS, context, nullptr)),
        0xC01C001Cu)
        << "a context hangs on one stream";
}

TEST_F(FltContext, DismountingTearsDown)
{
    const MountedFake second = Mount(L"\\Device\\HarddiskVolume8", L"R:");
    const PFLT_INSTANCE instance = instance_; // set up last
    const PFILE_OBJECT file = Open(L"\\??\\R:\\file");
    const PFLT_CONTEXT context = Allocate();
    ASSERT_EQ(FltSetStreamContext(instance, file, FLT_SET_CONTEXT_REPLACE_IF_EXISTS, context, nullptr), STATUS_SUCCESS);
    EXPECT_DEATH(FltSetStreamContext(instance, file_, FLT_SET_CONTEXT_REPLACE_IF_EXISTS, context, nullptr),
        "FLT_WRONG_INSTANCE");
    FltReleaseContext(context);
    CloseFile(file);
    EXPECT_TRUE(cleaned_.empty());
    DismountVolume(second.Mounted);
    EXPECT_EQ(cleaned_, Contexts{context});
}

TEST_F(FltContext, OutstandingReferencesAtUnregisterAreABugCheck)
{
    Attach();
    PFLT_CONTEXT found;
    ASSERT_EQ(FltGetStreamContext(instance_, file_, &found), STATUS_SUCCESS);
    EXPECT_DEATH(Unregister(), "FLT_CONTEXTS_OUTSTANDING.*1 references");
    FltReleaseContext(found);
}

TEST_F(FltContext, ReleasingTooOftenIsABugCheck)
{
    const PFLT_CONTEXT attached = Attach();
    EXPECT_DEATH(FltReleaseContext(attached), "FLT_CONTEXT_OVER_RELEASED");
    const PFLT_CONTEXT free = Allocate();
    FltReleaseContext(free);
    EXPECT_DEATH(FltReleaseContext(free), "FLT_CONTEXT_NOT_ALIVE");
    PFLT_CONTEXT found;
    EXPECT_DEATH(FltGetStreamContext(reinterpret_cast<PFLT_INSTANCE>(filter_), file_, &found), "FLT_BAD_OBJECT");
}

TEST_F(FltContext, Levels)
{
    const PFLT_CONTEXT context = Attach();
    PFLT_CONTEXT found;
    {
        const RaisedIrql raised(APC_LEVEL);
        ASSERT_EQ(FltGetStreamContext(instance_, file_, &found), STATUS_SUCCESS);
    }
    const RaisedIrql raised(DISPATCH_LEVEL);
    EXPECT_DEATH(FltGetStreamContext(instance_, file_, &found), "FltGetStreamContext");
    EXPECT_DEATH(
        FltAllocateContext(filter_, FLT_STREAM_CONTEXT, ContextSize, NonPagedPool, &found), "FltAllocateContext");
    EXPECT_DEATH(FltSetStreamContext(instance_, file_, FLT_SET_CONTEXT_REPLACE_IF_EXISTS, context, nullptr),
        "FltSetStreamContext");
    FltReleaseContext(found);
}

TEST_F(FltContext, ManyThreadsGetAndReplace)
{
    constexpr int Threads = 4;
    constexpr int Rounds = 500;
    std::mutex mutex;
    size_t freed = 0;
    callbacks.Cleanup = [&](PFLT_CONTEXT)
    {
        std::lock_guard guard(mutex);
        ++freed;
    };
    std::vector<std::thread> threads;
    for (int t = 0; t < Threads; ++t)
    {
        threads.emplace_back(
            [&]
            {
                for (int i = 0; i < Rounds; ++i)
                {
                    PFLT_CONTEXT context = nullptr;
                    ASSERT_EQ(FltAllocateContext(filter_, FLT_STREAM_CONTEXT, ContextSize, NonPagedPool, &context),
                        STATUS_SUCCESS);
                    PFLT_CONTEXT old = nullptr;
                    ASSERT_EQ(FltSetStreamContext(instance_, file_, FLT_SET_CONTEXT_REPLACE_IF_EXISTS, context, &old),
                        STATUS_SUCCESS);
                    if (old != nullptr)
                    {
                        FltReleaseContext(old);
                    }
                    FltReleaseContext(context);
                    ASSERT_EQ(FltGetStreamContext(instance_, file_, &context), STATUS_SUCCESS);
                    FltReleaseContext(context);
                }
            });
    }
    for (std::thread& thread : threads)
    {
        thread.join();
    }
    EXPECT_EQ(freed, Threads * Rounds - 1u);
    Unregister();
    EXPECT_EQ(freed, size_t{Threads * Rounds});
    callbacks.Cleanup = nullptr;
}
}
}
