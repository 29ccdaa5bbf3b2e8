// A volume whose file system only records what reaches it, and a filter whose callbacks are the test's own.
#pragma once

#include "hosted/ex/pool.h"
#include "hosted/flt/filter_manager.h"
#include "hosted/io/file_object.h"
#include "hosted/io/mdl.h"
#include "hosted/ke/failure_injection.h"
#include "hosted/ke/irql.h"
#include "hosted/ke/system_model.h"

#include <cstring>
#include <functional>
#include <gtest/gtest.h>
#include <mutex>
#include <vector>

namespace flt_test
{
using namespace hosted;

class RecordingFiles : public FileSystem
{
public:
    NTSTATUS Dispatch(FLT_IO_PARAMETER_BLOCK& operation, IO_STATUS_BLOCK& status) override
    {
        {
            std::lock_guard guard(mutex_);
            Seen.push_back(operation);
        }
        if (Handler)
        {
            return Handler(operation, status);
        }
        return Default(operation, status);
    }

    NTSTATUS Default(FLT_IO_PARAMETER_BLOCK& operation, IO_STATUS_BLOCK& status)
    {
        status = {};
        if (operation.MajorFunction == IRP_MJ_CREATE)
        {
            operation.TargetFileObject->FsContext = &Stream;
            status.Information = FILE_OPENED;
        }
        if (operation.MajorFunction == IRP_MJ_READ || operation.MajorFunction == IRP_MJ_WRITE)
        {
            status.Information = operation.Parameters.Read.Length;
        }
        return STATUS_SUCCESS;
    }

    bool FastIoPossible(PFILE_OBJECT, bool, ULONG) override { return FastIo; }
    NTSTATUS NormalizedName(PFILE_OBJECT, ULONG options, WideString* path) override
    {
        NameOptions = options;
        *path = Normalized;
        return NameStatus;
    }
    void Settled(PFILE_OBJECT) override { ++TimesSettled; }
    bool IsDirectory(PFILE_OBJECT) override { return Directory; }
    bool IsPagingFile(PFILE_OBJECT) override { return PagingFile; }

    // How many operations of one kind arrived.
    size_t Count(UCHAR major)
    {
        std::lock_guard guard(mutex_);
        size_t count = 0;
        for (const auto& block : Seen)
        {
            count += block.MajorFunction == major ? 1 : 0;
        }
        return count;
    }
    const FLT_IO_PARAMETER_BLOCK& Last()
    {
        std::lock_guard guard(mutex_);
        return Seen.back();
    }

    std::function<NTSTATUS(FLT_IO_PARAMETER_BLOCK&, IO_STATUS_BLOCK&)> Handler;
    std::vector<FLT_IO_PARAMETER_BLOCK> Seen;
    FSRTL_COMMON_FCB_HEADER Stream{};
    bool FastIo = false;
    bool Directory = false;
    bool PagingFile = false;
    ULONG NameOptions = 0;
    WideString Normalized = L"\\Dir\\long name.txt";
    NTSTATUS NameStatus = STATUS_SUCCESS;
    std::atomic<unsigned> TimesSettled = 0;

private:
    std::mutex mutex_;
};

struct FilterCallbacks
{
    std::function<FLT_PREOP_CALLBACK_STATUS(PFLT_CALLBACK_DATA, PCFLT_RELATED_OBJECTS, PVOID*)> Pre;
    std::function<FLT_POSTOP_CALLBACK_STATUS(PFLT_CALLBACK_DATA, PCFLT_RELATED_OBJECTS, PVOID)> Post;
    std::function<NTSTATUS(PCFLT_RELATED_OBJECTS, FLT_INSTANCE_SETUP_FLAGS, DEVICE_TYPE, FLT_FILESYSTEM_TYPE)> Setup;
    std::function<NTSTATUS()> Unload;
    std::function<void(PFLT_CONTEXT)> Cleanup;
};

inline FilterCallbacks callbacks;

inline FLT_PREOP_CALLBACK_STATUS NTAPI OnPre(PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS objects, PVOID* context)
{
    return callbacks.Pre ? callbacks.Pre(data, objects, context) : FLT_PREOP_SUCCESS_NO_CALLBACK;
}
inline FLT_POSTOP_CALLBACK_STATUS NTAPI OnPost(
    PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS objects, PVOID context, FLT_POST_OPERATION_FLAGS)
{
    return callbacks.Post ? callbacks.Post(data, objects, context) : FLT_POSTOP_FINISHED_PROCESSING;
}
inline NTSTATUS NTAPI OnSetup(
    PCFLT_RELATED_OBJECTS objects, FLT_INSTANCE_SETUP_FLAGS flags, DEVICE_TYPE device, FLT_FILESYSTEM_TYPE type)
{
    return callbacks.Setup ? callbacks.Setup(objects, flags, device, type) : STATUS_SUCCESS;
}
inline NTSTATUS NTAPI OnUnload(FLT_FILTER_UNLOAD_FLAGS)
{
    return callbacks.Unload();
}
inline void NTAPI OnCleanup(PFLT_CONTEXT context, FLT_CONTEXT_TYPE)
{
    if (callbacks.Cleanup)
    {
        callbacks.Cleanup(context);
    }
}

constexpr ULONG ContextTag = 'xtcT';
constexpr SIZE_T ContextSize = 40;

inline const FLT_CONTEXT_REGISTRATION contextRegistration[] = {
    {FLT_STREAM_CONTEXT, 0, OnCleanup, ContextSize, ContextTag, nullptr, nullptr, nullptr},
    {FLT_CONTEXT_END, 0, nullptr, 0, 0, nullptr, nullptr, nullptr}};
inline const FLT_OPERATION_REGISTRATION operationRegistration[] = {{IRP_MJ_CREATE, 0, OnPre, OnPost, nullptr},
    {IRP_MJ_READ, 0, OnPre, OnPost, nullptr}, {IRP_MJ_WRITE, 0, OnPre, OnPost, nullptr},
    {IRP_MJ_SET_INFORMATION, 0, OnPre, OnPost, nullptr}, {IRP_MJ_CLEANUP, 0, OnPre, nullptr, nullptr},
    {IRP_MJ_CLOSE, 0, OnPre, OnPost, nullptr}, {IRP_MJ_FLUSH_BUFFERS, 0, nullptr, OnPost, nullptr},
    {IRP_MJ_OPERATION_END, 0, nullptr, nullptr, nullptr}};

inline FLT_REGISTRATION Registration()
{
    FLT_REGISTRATION registration{};
    registration.Size = sizeof(FLT_REGISTRATION);
    registration.Version = FLT_REGISTRATION_VERSION_0202;
    registration.ContextRegistration = contextRegistration;
    registration.OperationRegistration = operationRegistration;
    registration.FilterUnloadCallback = OnUnload;
    registration.InstanceSetupCallback = OnSetup;
    return registration;
}

struct MountedFake
{
    RecordingFiles* Files;
    Volume* Mounted;
};

inline MountedFake Mount(
    WideView device, WideView dos, DEVICE_TYPE kind = FILE_DEVICE_DISK_FILE_SYSTEM, ULONG sectorSize = 512)
{
    auto volume = std::make_unique<Volume>();
    auto files = std::make_unique<RecordingFiles>();
    MountedFake fake{files.get(), nullptr};
    volume->DeviceName = WideString(device);
    volume->DosName = WideString(dos);
    volume->DeviceKind = kind;
    volume->Disk = nullptr;
    volume->FileSystemDevice = nullptr;
    volume->Vpb = nullptr;
    volume->SectorSize = sectorSize;
    volume->Files = std::move(files);
    fake.Mounted = MountVolume(std::move(volume));
    return fake;
}

// One disk volume; nothing may be left behind by a test.
class VolumeTest : public testing::Test
{
protected:
    void SetUp() override
    {
        callbacks = {};
        Model() = SystemModel();
        ResetFailures();
        allocations_ = LivePoolAllocations();
        fake_ = Mount(L"\\Device\\HarddiskVolume7", L"Q:");
        files_ = fake_.Files;
        volume_ = fake_.Mounted;
    }

    void TearDown() override
    {
        ResetFailures();
        DismountVolume(volume_);
        EXPECT_EQ(DescribeLiveMdls(), "");
        EXPECT_EQ(DescribeLiveFilterObjects(), "");
        EXPECT_EQ(LivePoolAllocations(), allocations_) << DescribeLivePool();
        Model() = SystemModel();
        callbacks = {};
    }

    // Everything that one may do with files, so that the tests of access ask for less.
    PFILE_OBJECT Open(WideView path = L"\\??\\Q:\\Dir\\file.txt", ULONG options = FILE_SYNCHRONOUS_IO_NONALERT)
    {
        OpenRequest request;
        request.Path = WideString(path);
        request.DesiredAccess = FILE_ALL_ACCESS;
        request.Options = options;
        PFILE_OBJECT file = nullptr;
        EXPECT_EQ(OpenFile(request, &file), STATUS_SUCCESS);
        return file;
    }

    MountedFake fake_{};
    RecordingFiles* files_ = nullptr;
    Volume* volume_ = nullptr;

private:
    size_t allocations_ = 0;
};

// The same, with a filter on the volume.
class FilterTest : public VolumeTest
{
protected:
    void SetUp() override
    {
        VolumeTest::SetUp();
        const FLT_REGISTRATION registration = Registration();
        callbacks.Setup = [this](PCFLT_RELATED_OBJECTS objects, ULONG, DEVICE_TYPE, FLT_FILESYSTEM_TYPE)
        {
            instance_ = objects->Instance;
            return STATUS_SUCCESS;
        };
        ASSERT_EQ(FltRegisterFilter(&driver_, &registration, &filter_), STATUS_SUCCESS);
        ASSERT_EQ(FltStartFiltering(filter_), STATUS_SUCCESS);
    }

    void TearDown() override
    {
        Unregister();
        VolumeTest::TearDown();
    }

    void Unregister()
    {
        if (filter_ != nullptr)
        {
            FltUnregisterFilter(filter_);
            filter_ = nullptr;
        }
    }

    DRIVER_OBJECT driver_{};
    PFLT_FILTER filter_ = nullptr;
    PFLT_INSTANCE instance_ = nullptr;
};
}
