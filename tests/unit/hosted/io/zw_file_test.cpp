#include "tests/unit/hosted/flt/filter_fixture.h"

#include "hosted/ob/handle_table.h"

#include <gmock/gmock.h>

namespace flt_test
{
namespace
{
class ZwFile : public VolumeTest
{
protected:
    NTSTATUS Open(WideView path, HANDLE root = nullptr, ULONG attributes = OBJ_KERNEL_HANDLE | OBJ_CASE_INSENSITIVE,
        ACCESS_MASK access = FILE_LIST_DIRECTORY | SYNCHRONIZE,
        ULONG options = FILE_DIRECTORY_FILE | FILE_SYNCHRONOUS_IO_NONALERT)
    {
        UNICODE_STRING name = Counted(path);
        OBJECT_ATTRIBUTES object;
        InitializeObjectAttributes(&object, &name, attributes, root, nullptr);
        handle_ = nullptr;
        return ZwOpenFile(&handle_, access, &object, &status_, FILE_SHARE_READ | FILE_SHARE_WRITE, options);
    }
    NTSTATUS Query(HANDLE handle, PUNICODE_STRING pattern = nullptr)
    {
        return ZwQueryDirectoryFile(handle, nullptr, nullptr, nullptr, &status_, buffer_, sizeof(buffer_),
            FileBothDirectoryInformation, TRUE, pattern, FALSE);
    }

    HANDLE handle_ = nullptr;
    IO_STATUS_BLOCK status_{};
    alignas(8) UCHAR buffer_[256] = {};
};

TEST_F(ZwFile, OpensForTheKernelAndClosesThroughTheHandle)
{
    ASSERT_EQ(Open(L"\\??\\Q:\\Dir\\"), STATUS_SUCCESS);
    EXPECT_LT(reinterpret_cast<LONG_PTR>(handle_), 0) << "a kernel handle";
    EXPECT_EQ(status_.Status, STATUS_SUCCESS);
    EXPECT_EQ(status_.Information, static_cast<ULONG_PTR>(FILE_OPENED));
    EXPECT_EQ(files_->Last().OperationFlags, 0);
    EXPECT_EQ(files_->Last().Parameters.Create.Options,
        static_cast<ULONG>(FILE_OPEN << 24 | FILE_DIRECTORY_FILE | FILE_SYNCHRONOUS_IO_NONALERT));
    EXPECT_EQ(files_->Last().Parameters.Create.ShareAccess, FILE_SHARE_READ | FILE_SHARE_WRITE);
    EXPECT_EQ(files_->Count(IRP_MJ_CLEANUP), 0u);
    EXPECT_EQ(ZwClose(handle_), STATUS_SUCCESS);
    EXPECT_EQ(files_->Count(IRP_MJ_CLEANUP), 1u);
    EXPECT_EQ(files_->Count(IRP_MJ_CLOSE), 1u);
}

TEST_F(ZwFile, OpensForTheProcessWithoutTheFlag)
{
    ASSERT_EQ(Open(L"\\??\\Q:\\Dir", nullptr, 0), STATUS_SUCCESS);
    EXPECT_EQ(files_->Last().OperationFlags, SL_CASE_SENSITIVE);
    EXPECT_EQ(&TableOf(handle_), &CurrentProcessHandles());
    EXPECT_EQ(ZwClose(handle_), STATUS_SUCCESS);
}

TEST_F(ZwFile, OpensRelativeToAHandle)
{
    ASSERT_EQ(Open(L"\\??\\Q:\\Dir"), STATUS_SUCCESS);
    const HANDLE root = handle_;
    ASSERT_EQ(Open(L"below", root), STATUS_SUCCESS);
    EXPECT_EQ(Narrow(View(files_->Last().TargetFileObject->FileName)), "below");
    EXPECT_EQ(ZwClose(handle_), STATUS_SUCCESS);
    EXPECT_EQ(ZwClose(root), STATUS_SUCCESS);
    EXPECT_EQ(files_->Count(IRP_MJ_CLOSE), 2u);
    EXPECT_EQ(Open(L"below", reinterpret_cast<HANDLE>(0x7770)), STATUS_INVALID_HANDLE);
}

TEST_F(ZwFile, OpenFailures)
{
    EXPECT_FALSE(NT_SUCCESS(Open(L"\\??\\Y:\\x")));
    EXPECT_EQ(handle_, nullptr);
    EXPECT_EQ(Open(L"\\??\\Q:\\Dir", nullptr, OBJ_KERNEL_HANDLE, FILE_LIST_DIRECTORY), STATUS_INVALID_PARAMETER)
        << "a synchronous file must be able to be waited for";
    FailRoutine("ZwOpenFile");
    EXPECT_EQ(Open(L"\\??\\Q:\\Dir"), STATUS_INSUFFICIENT_RESOURCES);
    OBJECT_ATTRIBUTES object{};
    EXPECT_EQ(ZwOpenFile(&handle_, 0, &object, &status_, 0, 0), STATUS_INVALID_PARAMETER);
    const RaisedIrql raised(APC_LEVEL);
    EXPECT_DEATH(Open(L"\\??\\Q:\\Dir"), "ZwOpenFile");
}

TEST_F(ZwFile, QueriesADirectory)
{
    ASSERT_EQ(Open(L"\\??\\Q:\\Dir"), STATUS_SUCCESS);
    files_->Handler = [&](FLT_IO_PARAMETER_BLOCK& operation, IO_STATUS_BLOCK& status)
    {
        if (operation.MajorFunction != IRP_MJ_DIRECTORY_CONTROL)
        {
            return files_->Default(operation, status);
        }
        EXPECT_EQ(operation.OperationFlags, DirectorySingleEntry);
        EXPECT_EQ(Narrow(View(*operation.Parameters.QueryDirectory.FileName)), "LONGNA~1");
        EXPECT_EQ(operation.Parameters.QueryDirectory.Length, sizeof(buffer_));
        buffer_[0] = 77;
        status = {{STATUS_SUCCESS}, 100};
        return STATUS_SUCCESS;
    };
    UNICODE_STRING pattern;
    RtlInitUnicodeString(&pattern, L"LONGNA~1");
    EXPECT_EQ(Query(handle_, &pattern), STATUS_SUCCESS);
    EXPECT_EQ(status_.Status, STATUS_SUCCESS);
    EXPECT_EQ(status_.Information, 100u);
    EXPECT_EQ(buffer_[0], 77);
    files_->Handler = [](FLT_IO_PARAMETER_BLOCK&, IO_STATUS_BLOCK& status)
    { return status.Status = STATUS_NO_MORE_FILES; };
    EXPECT_EQ(Query(handle_), STATUS_NO_MORE_FILES);
    EXPECT_EQ(status_.Status, STATUS_NO_MORE_FILES) << "a warning reaches the status block";
    files_->Handler = nullptr;
    EXPECT_EQ(ZwClose(handle_), STATUS_SUCCESS);
}

TEST_F(ZwFile, WritesWhereItIsToldOrWhereTheFileStands)
{
    ASSERT_EQ(Open(L"\\??\\Q:\\file", nullptr, OBJ_KERNEL_HANDLE, GENERIC_WRITE, FILE_SYNCHRONOUS_IO_NONALERT),
        STATUS_SUCCESS);
    std::vector<LONGLONG> offsets;
    files_->Handler = [&](FLT_IO_PARAMETER_BLOCK& operation, IO_STATUS_BLOCK& status)
    {
        if (operation.MajorFunction != IRP_MJ_WRITE)
        {
            return files_->Default(operation, status);
        }
        offsets.push_back(operation.Parameters.Write.ByteOffset.QuadPart);
        status = {{STATUS_SUCCESS}, operation.Parameters.Write.Length};
        return STATUS_SUCCESS;
    };
    const auto write = [this](PLARGE_INTEGER offset)
    { return ZwWriteFile(handle_, nullptr, nullptr, nullptr, &status_, buffer_, 10, offset, nullptr); };
    LARGE_INTEGER offset;
    EXPECT_EQ(write(nullptr), STATUS_SUCCESS);
    EXPECT_EQ(status_.Information, 10u);
    offset.QuadPart = 100;
    EXPECT_EQ(write(&offset), STATUS_SUCCESS);
    offset = {{FILE_USE_FILE_POINTER_POSITION, -1}};
    EXPECT_EQ(write(&offset), STATUS_SUCCESS);
    offset = {{FILE_WRITE_TO_END_OF_FILE, -1}};
    EXPECT_EQ(write(&offset), STATUS_SUCCESS);
    EXPECT_EQ(write(nullptr), STATUS_SUCCESS);
    EXPECT_THAT(offsets, testing::ElementsAre(0, 100, 110, -1, 120));
    files_->Handler = nullptr;
    EXPECT_EQ(ZwClose(handle_), STATUS_SUCCESS);
}

TEST_F(ZwFile, AWriteWithoutAPlaceNeedsASynchronousFile)
{
    ASSERT_EQ(Open(L"\\??\\Q:\\file", nullptr, OBJ_KERNEL_HANDLE, GENERIC_WRITE, 0), STATUS_SUCCESS);
    EXPECT_EQ(ZwWriteFile(handle_, nullptr, nullptr, nullptr, &status_, buffer_, 1, nullptr, nullptr),
        STATUS_INVALID_PARAMETER);
    EXPECT_EQ(files_->Count(IRP_MJ_WRITE), 0u);
    EXPECT_EQ(ZwClose(handle_), STATUS_SUCCESS);
}

TEST_F(ZwFile, QueryFailures)
{
    EXPECT_EQ(Query(reinterpret_cast<HANDLE>(0x7770)), STATUS_INVALID_HANDLE);
    ASSERT_EQ(Open(L"\\??\\Q:\\Dir"), STATUS_SUCCESS);
    FailRoutine("ZwQueryDirectoryFile");
    EXPECT_EQ(Query(handle_), STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_EQ(files_->Count(IRP_MJ_DIRECTORY_CONTROL), 0u);
    EXPECT_DEATH(ZwQueryDirectoryFile(handle_, handle_, nullptr, nullptr, &status_, buffer_, sizeof(buffer_),
                     FileBothDirectoryInformation, TRUE, nullptr, FALSE),
        "NOT_MODELLED");
    EXPECT_EQ(ZwClose(handle_), STATUS_SUCCESS);
}
}
}
