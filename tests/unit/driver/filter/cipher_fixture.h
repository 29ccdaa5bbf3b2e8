// The driver's callbacks over a file system that only records: what reaches the disk, and what comes back from it.
#pragma once

#include "driver/core/filter_registration.h"
#include "driver/core/global_state.h"
#include "driver/filter/create_decision.h"
#include "driver/filter/end_of_file.h"
#include "driver/filter/read_path.h"
#include "driver/filter/stream_cipher_context.h"
#include "driver/filter/swap_buffer.h"
#include "driver/filter/write_path.h"
#include "driver/util/pool.h"
#include "hosted/flt/callback_data.h"
#include "hosted/rtl/debug_print.h"
#include "tests/unit/driver/filter/cipher_vectors.h"
#include "tests/unit/hosted/flt/filter_fixture.h"

namespace cipher_test
{
using namespace hosted;

constexpr UCHAR Mask = 0xa5;

// A call that a swap makes, in order. The aligned allocation takes its memory from the pool, so the swap context's is
// the second one there.
struct Fault
{
    const char* Routine;
    uint64_t Number;
    bool AfterMdl;
};
inline constexpr Fault SwapFaults[] = {{"FltGetStreamContext", 1, false}, {"MmMapLockedPagesSpecifyCache", 1, false},
    {"FltAllocatePoolAlignedWithTag", 1, false}, {"ExAllocatePoolWithTag", 1, false}, {"IoAllocateMdl", 1, false},
    {"ExAllocatePoolWithTag", 2, true}};

inline bool wantContext = true;
inline PFLT_INSTANCE lastInstance = nullptr;

// In place of the create decision: every open is a permitted one.
inline FLT_PREOP_CALLBACK_STATUS NTAPI PermitCreate(PFLT_CALLBACK_DATA, PCFLT_RELATED_OBJECTS, PVOID*)
{
    return wantContext ? FLT_PREOP_SUCCESS_WITH_CALLBACK : FLT_PREOP_SUCCESS_NO_CALLBACK;
}

inline NTSTATUS NTAPI RememberInstance(
    PCFLT_RELATED_OBJECTS objects, FLT_INSTANCE_SETUP_FLAGS, DEVICE_TYPE, FLT_FILESYSTEM_TYPE)
{
    lastInstance = objects->Instance;
    return STATUS_SUCCESS;
}

inline const FLT_OPERATION_REGISTRATION cipherOperations[] = {{IRP_MJ_CREATE, 0, PermitCreate, PostCreate, nullptr},
    {IRP_MJ_WRITE, 0, PreWrite, PostWrite, nullptr}, {IRP_MJ_READ, 0, PreRead, PostRead, nullptr},
    {IRP_MJ_SET_INFORMATION, 0, PreSetInformation, PostSetInformation, nullptr},
    {IRP_MJ_OPERATION_END, 0, nullptr, nullptr, nullptr}};

class CipherTest : public flt_test::VolumeTest
{
protected:
    void SetUp() override
    {
        VolumeTest::SetUp();
        InitializePoolPolicy();
        ClearDebugPrints();
        SelectCipherFamily(ProcessorHasAesInstructions() ? CipherFamily::Instructions : CipherFamily::Portable);
        SetKey(Pattern(16, 99), Mask);
        wantContext = true;
        FLT_REGISTRATION registration;
        BuildFilterRegistration(&registration, nullptr);
        registration.OperationRegistration = cipherOperations;
        registration.InstanceSetupCallback = RememberInstance;
        ASSERT_EQ(FltRegisterFilter(&driver_, &registration, &filter_), STATUS_SUCCESS);
        ASSERT_EQ(FltStartFiltering(filter_), STATUS_SUCCESS);
        files_->Handler = [this](FLT_IO_PARAMETER_BLOCK& operation, IO_STATUS_BLOCK& status)
        { return Serve(operation, status); };
        SetSize(0);
    }

    void TearDown() override
    {
        CloseAll();
        FltUnregisterFilter(filter_);
        Global.KeyLength = 0;
        VolumeTest::TearDown();
    }

    void CloseAll()
    {
        for (PFILE_OBJECT file : opened_)
        {
            CloseFile(file);
        }
        opened_.clear();
    }

    void SetKey(const std::string& key, UCHAR mask)
    {
        key_ = key;
        Global.KeyLength = static_cast<ULONG>(key.size());
        std::memset(Global.CryptKey, 0, sizeof(Global.CryptKey));
        std::memcpy(Global.CryptKey, key.data(), std::min(key.size(), sizeof(Global.CryptKey)));
        Global.XorByte = mask;
    }

    // What the file system says of the stream.
    void SetSize(LONGLONG size) { files_->Stream.FileSize.QuadPart = size; }

    PFILE_OBJECT OpenStream(ULONG options = 0)
    {
        PFILE_OBJECT file = Open(L"\\??\\Q:\\Dir\\file.txt", FILE_SYNCHRONOUS_IO_NONALERT | options);
        opened_.push_back(file);
        return file;
    }

    // Null when the stream has none. The reference is given back: the stream's own keeps it.
    StreamCipherContext* ContextOf(PFILE_OBJECT file)
    {
        PFLT_CONTEXT context = nullptr;
        if (!NT_SUCCESS(FltGetStreamContext(lastInstance, file, &context)))
        {
            return nullptr;
        }
        FltReleaseContext(context);
        return static_cast<StreamCipherContext*>(context);
    }

    // The bytes that a paging write of one page, or a write past the cache, brings to the file system.
    std::string WritePage(PFILE_OBJECT file, LONGLONG offset, const std::string& bytes)
    {
        std::memcpy(page_, bytes.data(), std::min(bytes.size(), sizeof(page_)));
        written_.clear();
        IO_STATUS_BLOCK status{};
        EXPECT_EQ(PagingWrite(file, offset, page_, PAGE_SIZE, &status), STATUS_SUCCESS);
        EXPECT_EQ(std::string(page_, bytes.size()), bytes) << "the caller's bytes changed";
        return written_;
    }
    // At most a page. A lengthened write may look at the rest of the buffer's page.
    std::string Write(PFILE_OBJECT file, LONGLONG offset, const std::string& bytes)
    {
        std::memcpy(page_, bytes.data(), bytes.size());
        written_.clear();
        IO_STATUS_BLOCK status{};
        EXPECT_EQ(WriteFile(file, offset, page_, static_cast<ULONG>(bytes.size()), &status), STATUS_SUCCESS);
        return written_;
    }
    // A page as the reader gets it when the file system answers with `disk`.
    std::string ReadPage(PFILE_OBJECT file, const std::string& disk, LONGLONG offset = 0)
    {
        disk_ = disk;
        std::memset(page_, 0xee, sizeof(page_));
        EXPECT_EQ(PagingRead(file, offset, page_, PAGE_SIZE, &status_), STATUS_SUCCESS);
        EXPECT_EQ(status_.Information, disk.size());
        return std::string(page_, disk.size());
    }

    NTSTATUS Serve(FLT_IO_PARAMETER_BLOCK& operation, IO_STATUS_BLOCK& status)
    {
        auto& write = operation.Parameters.Write;
        const bool transfer = operation.MajorFunction == IRP_MJ_WRITE || operation.MajorFunction == IRP_MJ_READ;
        char* data = nullptr;
        if (transfer)
        {
            data = static_cast<char*>(
                write.MdlAddress != nullptr ? MdlSystemAddress(write.MdlAddress) : write.WriteBuffer);
            seenBuffer_ = data;
            seenLength_ = write.Length;
        }
        if (!NT_SUCCESS(answer_) && operation.MajorFunction != IRP_MJ_CLEANUP &&
            operation.MajorFunction != IRP_MJ_CLOSE)
        {
            status = {{answer_}, 0};
            return answer_;
        }
        const NTSTATUS result = files_->Default(operation, status);
        if (operation.MajorFunction == IRP_MJ_WRITE)
        {
            written_.assign(data, write.Length);
        }
        else if (operation.MajorFunction == IRP_MJ_READ)
        {
            const size_t length = std::min<size_t>(disk_.size(), write.Length);
            std::memcpy(data, disk_.data(), length);
            status.Information = length;
        }
        return result;
    }

    DRIVER_OBJECT driver_{};
    PFLT_FILTER filter_ = nullptr;
    std::string key_;
    std::string written_;
    std::string disk_;
    NTSTATUS answer_ = STATUS_SUCCESS;
    IO_STATUS_BLOCK status_{};
    void* seenBuffer_ = nullptr;
    ULONG seenLength_ = 0;
    alignas(PAGE_SIZE) char page_[PAGE_SIZE] = {};

private:
    std::vector<PFILE_OBJECT> opened_;
};
}
