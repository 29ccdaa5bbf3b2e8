#include "tests/unit/hosted/flt/filter_fixture.h"

#include <condition_variable>
#include <thread>

namespace flt_test
{
namespace
{
class FltRegistration : public VolumeTest
{
protected:
    NTSTATUS Register(const FLT_REGISTRATION& registration)
    {
        PFLT_FILTER filter = nullptr;
        const NTSTATUS status = FltRegisterFilter(&driver_, &registration, &filter);
        if (NT_SUCCESS(status))
        {
            FltUnregisterFilter(filter);
        }
        return status;
    }

    DRIVER_OBJECT driver_{};
};

TEST_F(FltRegistration, AcceptsTheVersionAndSizeOfWindows7)
{
    EXPECT_EQ(Register(Registration()), STATUS_SUCCESS);
}

TEST_F(FltRegistration, RefusesOtherVersionsAndSizes)
{
    FLT_REGISTRATION registration = Registration();
    registration.Version = 0x0100;
    EXPECT_EQ(Register(registration), STATUS_INVALID_PARAMETER);
    registration = Registration();
    registration.Size -= sizeof(PVOID);
    EXPECT_EQ(Register(registration), STATUS_INVALID_PARAMETER);
    registration = Registration();
    PFLT_FILTER filter = nullptr;
    EXPECT_EQ(FltRegisterFilter(nullptr, &registration, &filter), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(filter, nullptr);
}

TEST_F(FltRegistration, RefusesWrongOperations)
{
    FLT_REGISTRATION registration = Registration();
    const FLT_OPERATION_REGISTRATION unknown[] = {
        {0x70, 0, OnPre, nullptr, nullptr}, {IRP_MJ_OPERATION_END, 0, nullptr, nullptr, nullptr}};
    registration.OperationRegistration = unknown;
    EXPECT_EQ(Register(registration), STATUS_INVALID_PARAMETER);
    const FLT_OPERATION_REGISTRATION empty[] = {
        {IRP_MJ_READ, 0, nullptr, nullptr, nullptr}, {IRP_MJ_OPERATION_END, 0, nullptr, nullptr, nullptr}};
    registration.OperationRegistration = empty;
    EXPECT_EQ(Register(registration), STATUS_INVALID_PARAMETER);
    const FLT_OPERATION_REGISTRATION twice[] = {{IRP_MJ_READ, 0, OnPre, nullptr, nullptr},
        {IRP_MJ_READ, 0, OnPre, nullptr, nullptr}, {IRP_MJ_OPERATION_END, 0, nullptr, nullptr, nullptr}};
    registration.OperationRegistration = twice;
    EXPECT_EQ(Register(registration), STATUS_INVALID_PARAMETER);
}

TEST_F(FltRegistration, RefusesWrongContexts)
{
    FLT_REGISTRATION registration = Registration();
    FLT_CONTEXT_REGISTRATION contexts[] = {contextRegistration[0], contextRegistration[1]};
    contexts[0].Size = 0;
    registration.ContextRegistration = contexts;
    EXPECT_EQ(Register(registration), STATUS_FLT_INVALID_CONTEXT_REGISTRATION);
    contexts[0] = contextRegistration[0];
    contexts[0].ContextType = 0x0040;
    EXPECT_EQ(Register(registration), STATUS_FLT_INVALID_CONTEXT_REGISTRATION);
}

TEST_F(FltRegistration, OneFilterAtATime)
{
    const FLT_REGISTRATION registration = Registration();
    PFLT_FILTER first = nullptr;
    PFLT_FILTER second = nullptr;
    ASSERT_EQ(FltRegisterFilter(&driver_, &registration, &first), STATUS_SUCCESS);
    EXPECT_EQ(FltRegisterFilter(&driver_, &registration, &second), STATUS_OBJECT_NAME_COLLISION);
    FltUnregisterFilter(first);
    EXPECT_EQ(Register(registration), STATUS_SUCCESS);
}

TEST_F(FltRegistration, FailsWhenToldTo)
{
    FailRoutine("FltRegisterFilter");
    EXPECT_EQ(Register(Registration()), STATUS_INSUFFICIENT_RESOURCES);
    ResetFailures();
    const FLT_REGISTRATION registration = Registration();
    PFLT_FILTER filter = nullptr;
    ASSERT_EQ(FltRegisterFilter(&driver_, &registration, &filter), STATUS_SUCCESS);
    FailRoutine("FltStartFiltering");
    EXPECT_EQ(FltStartFiltering(filter), STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_FALSE(HasInstance(volume_));
    EXPECT_EQ(FltStartFiltering(filter), STATUS_SUCCESS);
    EXPECT_TRUE(HasInstance(volume_));
    EXPECT_EQ(FltStartFiltering(filter), STATUS_INVALID_PARAMETER);
    FltUnregisterFilter(filter);
}

TEST_F(FltRegistration, SetsUpInstancesOfMountedAndOfLaterVolumes)
{
    struct Call
    {
        PFLT_VOLUME Volume;
        ULONG Flags;
        DEVICE_TYPE Device;
        FLT_FILESYSTEM_TYPE Type;
    };
    std::vector<Call> calls;
    callbacks.Setup = [&](PCFLT_RELATED_OBJECTS objects, ULONG flags, DEVICE_TYPE device, FLT_FILESYSTEM_TYPE type)
    {
        EXPECT_EQ(objects->Size, sizeof(FLT_RELATED_OBJECTS));
        EXPECT_EQ(objects->FileObject, nullptr);
        calls.push_back({objects->Volume, flags, device, type});
        return device == FILE_DEVICE_DISK_FILE_SYSTEM ? STATUS_SUCCESS : STATUS_FLT_DO_NOT_ATTACH;
    };
    const FLT_REGISTRATION registration = Registration();
    PFLT_FILTER filter = nullptr;
    ASSERT_EQ(FltRegisterFilter(&driver_, &registration, &filter), STATUS_SUCCESS);
    EXPECT_TRUE(calls.empty());
    EXPECT_FALSE(HasInstance(volume_));
    ASSERT_EQ(FltStartFiltering(filter), STATUS_SUCCESS);
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].Device, static_cast<DEVICE_TYPE>(FILE_DEVICE_DISK_FILE_SYSTEM));
    EXPECT_EQ(calls[0].Type, FLT_FSTYPE_NTFS);
    EXPECT_EQ(calls[0].Flags, 1u);
    EXPECT_TRUE(HasInstance(volume_));

    const MountedFake network = Mount(L"\\Device\\Mup", L"", FILE_DEVICE_NETWORK_FILE_SYSTEM);
    const MountedFake disk = Mount(L"\\Device\\HarddiskVolume8", L"");
    ASSERT_EQ(calls.size(), 3u);
    EXPECT_EQ(calls[1].Device, static_cast<DEVICE_TYPE>(FILE_DEVICE_NETWORK_FILE_SYSTEM));
    EXPECT_EQ(calls[1].Flags, 5u);
    EXPECT_FALSE(HasInstance(network.Mounted));
    EXPECT_TRUE(HasInstance(disk.Mounted));
    DismountVolume(disk.Mounted);
    DismountVolume(network.Mounted);
    FltUnregisterFilter(filter);
    EXPECT_FALSE(HasInstance(volume_));
}

TEST_F(FltRegistration, UnloadCallsTheFilterAndReturnsItsStatus)
{
    EXPECT_EQ(static_cast<ULONG>(UnloadFilter()), 0xC01C0013u);
    FLT_REGISTRATION registration = Registration();
    registration.FilterUnloadCallback = nullptr;
    PFLT_FILTER filter = nullptr;
    ASSERT_EQ(FltRegisterFilter(&driver_, &registration, &filter), STATUS_SUCCESS);
    EXPECT_EQ(static_cast<ULONG>(UnloadFilter()), 0xC01C0010u);
    FltUnregisterFilter(filter);

    registration = Registration();
    ASSERT_EQ(FltRegisterFilter(&driver_, &registration, &filter), STATUS_SUCCESS);
    callbacks.Unload = [] { return STATUS_ACCESS_DENIED; };
    EXPECT_EQ(UnloadFilter(), STATUS_ACCESS_DENIED);
    callbacks.Unload = [] { return STATUS_SUCCESS; };
    EXPECT_DEATH(UnloadFilter(), "FLT_UNLOADED_REGISTERED");
    callbacks.Unload = [filter]
    {
        FltUnregisterFilter(filter);
        return STATUS_SUCCESS;
    };
    EXPECT_EQ(UnloadFilter(), STATUS_SUCCESS);
}

TEST_F(FltRegistration, UnregisteringWaitsForCallbacksAndForbidsNewOnes)
{
    const FLT_REGISTRATION registration = Registration();
    PFLT_FILTER filter = nullptr;
    ASSERT_EQ(FltRegisterFilter(&driver_, &registration, &filter), STATUS_SUCCESS);
    ASSERT_EQ(FltStartFiltering(filter), STATUS_SUCCESS);
    const PFILE_OBJECT file = Open();

    std::mutex mutex;
    std::condition_variable changed;
    bool inside = false;
    bool proceed = false;
    std::atomic<bool> postCalled = false;
    std::atomic<bool> gone = false;
    callbacks.Pre = [&](PFLT_CALLBACK_DATA, PCFLT_RELATED_OBJECTS, PVOID*)
    {
        std::unique_lock guard(mutex);
        inside = true;
        changed.notify_all();
        changed.wait(guard, [&] { return proceed; });
        return FLT_PREOP_SUCCESS_WITH_CALLBACK;
    };
    callbacks.Post = [&](PFLT_CALLBACK_DATA, PCFLT_RELATED_OBJECTS, PVOID)
    {
        EXPECT_FALSE(gone);
        postCalled = true;
        return FLT_POSTOP_FINISHED_PROCESSING;
    };
    std::thread reader(
        [&]
        {
            char byte;
            IO_STATUS_BLOCK status;
            EXPECT_EQ(ReadFile(file, 0, &byte, 1, &status), STATUS_SUCCESS);
        });
    {
        std::unique_lock guard(mutex);
        changed.wait(guard, [&] { return inside; });
    }
    std::thread unloader(
        [&]
        {
            FltUnregisterFilter(filter);
            gone = true;
            EXPECT_TRUE(postCalled);
        });
    // The teardown has begun once the volume shows no instance; then the operation goes on.
    while (HasInstance(volume_))
    {
        std::this_thread::yield();
    }
    EXPECT_FALSE(gone);
    char byte;
    IO_STATUS_BLOCK status;
    EXPECT_EQ(ReadFile(file, 0, &byte, 1, &status), STATUS_SUCCESS) << "passes a filter that is going away";
    {
        std::lock_guard guard(mutex);
        proceed = true;
    }
    changed.notify_all();
    reader.join();
    unloader.join();
    EXPECT_TRUE(gone);
    callbacks = {};
    CloseFile(file);
}

TEST_F(FltRegistration, UnregisteringInsideACallbackOrTwiceIsABugCheck)
{
    const FLT_REGISTRATION registration = Registration();
    PFLT_FILTER filter = nullptr;
    ASSERT_EQ(FltRegisterFilter(&driver_, &registration, &filter), STATUS_SUCCESS);
    ASSERT_EQ(FltStartFiltering(filter), STATUS_SUCCESS);
    callbacks.Pre = [filter](PFLT_CALLBACK_DATA, PCFLT_RELATED_OBJECTS, PVOID*)
    {
        FltUnregisterFilter(filter);
        return FLT_PREOP_SUCCESS_NO_CALLBACK;
    };
    EXPECT_DEATH(Open(), "FLT_WAIT_IN_CALLBACK");
    EXPECT_DEATH(FltStartFiltering(reinterpret_cast<PFLT_FILTER>(&driver_)), "FLT_BAD_OBJECT");
    EXPECT_DEATH(
        {
            const RaisedIrql raised(APC_LEVEL);
            FltUnregisterFilter(filter);
        },
        "FltUnregisterFilter");
    FltUnregisterFilter(filter);
}
}
}
