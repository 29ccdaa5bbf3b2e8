// A file open on a filtered volume, and short ways to say what the filter does with an operation on it.
#pragma once

#include "tests/unit/hosted/flt/filter_fixture.h"

namespace flt_test
{
class OperationTest : public FilterTest
{
protected:
    void SetUp() override
    {
        FilterTest::SetUp();
        file_ = Open();
        files_->Seen.clear();
    }
    void TearDown() override
    {
        callbacks = {};
        CloseFile(file_);
        FilterTest::TearDown();
    }

    void Pre(std::function<FLT_PREOP_CALLBACK_STATUS(PFLT_CALLBACK_DATA, PVOID*)> pre)
    {
        callbacks.Pre = [pre](PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS, PVOID* context)
        { return pre(data, context); };
    }
    void Post(std::function<void(PFLT_CALLBACK_DATA, PVOID)> post)
    {
        callbacks.Post = [post](PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS, PVOID context)
        {
            post(data, context);
            return FLT_POSTOP_FINISHED_PROCESSING;
        };
    }
    NTSTATUS Read(ULONG length = sizeof(buffer_)) { return ReadFile(file_, 0, buffer_, length, &status_); }
    NTSTATUS ReadPage() { return PagingRead(file_, PAGE_SIZE, page_, PAGE_SIZE, &status_); }

    PFILE_OBJECT file_ = nullptr;
    char buffer_[64] = {};
    alignas(PAGE_SIZE) char page_[PAGE_SIZE] = {};
    IO_STATUS_BLOCK status_{};
};

// A filter's own buffer and MDL.
struct Swap
{
    explicit Swap(ULONG length) : Buffer(ExAllocatePoolWithTag(NonPagedPool, length, ContextTag))
    {
        Mdl = IoAllocateMdl(Buffer, length, FALSE, FALSE, nullptr);
        MmBuildMdlForNonPagedPool(Mdl);
    }
    PVOID Buffer;
    PMDL Mdl;
};
}
