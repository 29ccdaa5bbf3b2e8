// A mounted volume for the tests of the file system and the cache, with a look at the paging I/O that reaches it.
#pragma once

#include "hosted/fs/file_system.h"
#include "hosted/fs/store/store_volume.h"
#include "hosted/io/file.h"
#include "hosted/ke/system_model.h"
#include "hosted/ob/object.h"

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

namespace hosted
{
struct PagingOperation
{
    bool Write;
    LONGLONG Offset;
    ULONG Length;
    LONGLONG FileSize; // what the header said when it arrived
    bool operator==(const PagingOperation&) const = default;
};

inline void PrintTo(const PagingOperation& operation, std::ostream* out)
{
    *out << (operation.Write ? "write " : "read ") << operation.Length << " at " << operation.Offset << " of "
         << operation.FileSize;
}

// Stands before a file system and writes down what the cache asks of it.
class RecordingFiles : public FileSystem
{
public:
    explicit RecordingFiles(std::unique_ptr<FileSystem> inner) : Inner(std::move(inner)) {}

    NTSTATUS Dispatch(FLT_IO_PARAMETER_BLOCK& operation, IO_STATUS_BLOCK& status) override
    {
        if (operation.IrpFlags & IRP_PAGING_IO)
        {
            const bool write = operation.MajorFunction == IRP_MJ_WRITE;
            const auto* header = static_cast<PFSRTL_COMMON_FCB_HEADER>(operation.TargetFileObject->FsContext);
            std::lock_guard guard(lock_);
            paging_.push_back({write, operation.Parameters.Read.ByteOffset.QuadPart, operation.Parameters.Read.Length,
                __atomic_load_n(&header->FileSize.QuadPart, __ATOMIC_RELAXED)});
            if (write ? FailWrites : FailReads)
            {
                status.Information = 0;
                return status.Status = STATUS_UNEXPECTED_IO_ERROR;
            }
        }
        if (BeforeRead && operation.IrpFlags & IRP_PAGING_IO && operation.MajorFunction == IRP_MJ_READ)
        {
            BeforeRead();
        }
        return Inner->Dispatch(operation, status);
    }
    bool FastIoPossible(PFILE_OBJECT file, bool write, ULONG length) override
    {
        return Inner->FastIoPossible(file, write, length);
    }
    NTSTATUS NormalizedName(PFILE_OBJECT file, ULONG options, WideString* path) override
    {
        return Inner->NormalizedName(file, options, path);
    }
    void Settled(PFILE_OBJECT file) override
    {
        std::function<void()> before;
        {
            std::lock_guard guard(lock_);
            before.swap(BeforeSettled);
        }
        if (before)
        {
            before();
        }
        Inner->Settled(file);
    }
    bool IsDirectory(PFILE_OBJECT file) override { return Inner->IsDirectory(file); }
    bool IsPagingFile(PFILE_OBJECT file) override { return Inner->IsPagingFile(file); }

    std::vector<PagingOperation> TakePaging()
    {
        std::lock_guard guard(lock_);
        return std::exchange(paging_, {});
    }

    std::unique_ptr<FileSystem> Inner;
    // Once, while the next operation that may have changed a size is on its way up.
    std::function<void()> BeforeSettled;
    // Before each paging read arrives.
    std::function<void()> BeforeRead;
    std::atomic<bool> FailReads = false;
    std::atomic<bool> FailWrites = false;

private:
    std::mutex lock_;
    std::vector<PagingOperation> paging_;
};

struct OpenHow
{
    ULONG Disposition = FILE_OPEN_IF;
    ULONG Options = 0;
    ACCESS_MASK Access = FILE_READ_DATA | FILE_WRITE_DATA | DELETE;
    ULONG Share = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
    ULONG Attributes = FILE_ATTRIBUTE_NORMAL;
    PFILE_OBJECT Root = nullptr;
    UCHAR StackFlags = 0;
    const void* Ea = nullptr;
    ULONG EaLength = 0;
};

// The volume "X:" over a memory disk that outlives mounts.
class VolumeTest : public testing::Test
{
protected:
    VolumeTest()
    {
        limitBefore_ = Model().CacheLimitBytes;
        Mount();
    }

    ~VolumeTest() override
    {
        Dismount();
        EXPECT_EQ(CachedBytes(), 0u);
        Model().CacheLimitBytes = limitBefore_;
    }

    void Mount()
    {
        auto volume = std::make_unique<Volume>();
        volume->DeviceName = L"\\Device\\HarddiskVolume7";
        volume->DosName = L"X:";
        volume->DeviceKind = FILE_DEVICE_DISK_FILE_SYSTEM;
        volume->Disk = nullptr;
        volume->FileSystemDevice = nullptr;
        volume->Vpb = nullptr;
        volume->SectorSize = SectorSize;
        auto files = std::make_unique<RecordingFiles>(MakeFilesFor(*volume));
        Files = files.get();
        volume->Files = std::move(files);
        Mounted = MountVolume(std::move(volume));
    }

    void Dismount()
    {
        if (Mounted != nullptr)
        {
            LazyWrite();
            DismountVolume(Mounted);
            Mounted = nullptr;
        }
    }

    void Remount()
    {
        Dismount();
        Mount();
    }

    NTSTATUS TryOpen(WideView path, const OpenHow& how, PFILE_OBJECT* file, ULONG_PTR* information = nullptr)
    {
        OpenRequest request;
        request.Path = how.Root != nullptr ? WideString(path) : L"\\??\\X:" + WideString(path);
        request.Root = how.Root;
        request.DesiredAccess = how.Access | SYNCHRONIZE;
        request.ShareAccess = how.Share;
        request.Disposition = how.Disposition;
        request.Options = how.Options | FILE_SYNCHRONOUS_IO_NONALERT;
        request.FileAttributes = how.Attributes;
        request.StackFlags = how.StackFlags;
        request.Ea = how.Ea;
        request.EaLength = how.EaLength;
        return OpenFile(request, file, information);
    }

    // The status of an open that is closed again at once.
    NTSTATUS Attempt(WideView path, const OpenHow& how = {}, ULONG_PTR* information = nullptr)
    {
        PFILE_OBJECT file = nullptr;
        const NTSTATUS status = TryOpen(path, how, &file, information);
        if (NT_SUCCESS(status))
        {
            CloseFile(file);
        }
        return status;
    }

    PFILE_OBJECT Open(WideView path, const OpenHow& how = {})
    {
        PFILE_OBJECT file = nullptr;
        EXPECT_EQ(TryOpen(path, how, &file), STATUS_SUCCESS) << Narrow(path);
        return file;
    }

    PFILE_OBJECT OpenDirectory(WideView path)
    {
        return Open(path, {.Options = FILE_DIRECTORY_FILE, .Access = FILE_LIST_DIRECTORY});
    }

    void MakeDirectory(WideView path) { CloseFile(OpenDirectory(path)); }

    void MakeFile(WideView path, const std::string& text = {})
    {
        PFILE_OBJECT file = Open(path);
        Write(file, 0, text);
        CloseFile(file);
    }

    static void Write(PFILE_OBJECT file, LONGLONG offset, const std::string& text)
    {
        IO_STATUS_BLOCK status = {};
        EXPECT_EQ(WriteFile(file, offset, text.data(), static_cast<ULONG>(text.size()), &status), STATUS_SUCCESS);
        EXPECT_EQ(status.Information, text.size());
    }

    static std::string Read(PFILE_OBJECT file, LONGLONG offset, ULONG length)
    {
        std::string text(length, '?');
        IO_STATUS_BLOCK status = {};
        const NTSTATUS result = ReadFile(file, offset, text.data(), length, &status);
        EXPECT_TRUE(result == STATUS_SUCCESS || result == STATUS_END_OF_FILE) << std::hex << result;
        text.resize(status.Information);
        return text;
    }

    static LONGLONG SizeOf(PFILE_OBJECT file)
    {
        return static_cast<PFSRTL_COMMON_FCB_HEADER>(file->FsContext)->FileSize.QuadPart;
    }

    std::string OnDisk(WideView path)
    {
        std::string bytes;
        EXPECT_TRUE(ReadDisk(*Files->Inner, path, &bytes)) << Narrow(path);
        return bytes;
    }

    bool IsOnDisk(WideView path)
    {
        std::string bytes;
        return ReadDisk(*Files->Inner, path, &bytes);
    }

    std::shared_ptr<MemoryDisk> Disk = CreateMemoryDisk();
    StoreOptions Options;
    ULONG SectorSize = 512;
    Volume* Mounted = nullptr;
    RecordingFiles* Files = nullptr;
    std::function<std::unique_ptr<Store>()> MakeStoreFor = [this] { return CreateMemoryStore(Disk); };
    std::function<std::unique_ptr<FileSystem>(Volume&)> MakeFilesFor = [this](Volume& volume)
    { return CreateStoreFileSystem(volume, MakeStoreFor(), Options); };

private:
    SIZE_T limitBefore_;
};
}
