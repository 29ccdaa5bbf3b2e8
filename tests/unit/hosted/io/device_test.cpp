#include "hosted/io/device.h"

#include "hosted/io/device_driver.h"
#include "hosted/io/file.h"
#include "hosted/io/irp.h"
#include "hosted/ke/failure_injection.h"
#include "hosted/ke/irql.h"
#include "hosted/ob/name_space.h"

#include <gmock/gmock.h>

#include <vector>

using namespace hosted;
using testing::ElementsAre;

namespace
{
// What the driver under test was asked, and how its create answers.
std::vector<UCHAR> requests;
std::vector<KPROCESSOR_MODE> modes;
NTSTATUS createAnswer = STATUS_SUCCESS;

NTSTATUS NTAPI Record(PDEVICE_OBJECT, PIRP irp)
{
    const UCHAR function = IoGetCurrentIrpStackLocation(irp)->MajorFunction;
    requests.push_back(function);
    modes.push_back(irp->RequestorMode);
    const NTSTATUS status = function == IRP_MJ_CREATE ? createAnswer : STATUS_SUCCESS;
    irp->IoStatus.Status = status;
    irp->IoStatus.Information = 0;
    IoCompleteRequest(irp, IO_NO_INCREMENT);
    return status;
}

class DeviceTest : public testing::Test
{
protected:
    DeviceTest()
    {
        ResetFailures();
        requests.clear();
        modes.clear();
        createAnswer = STATUS_SUCCESS;
        driver_ = CreateDriverObject(L"\\FileSystem\\Test");
        driver_->MajorFunction[IRP_MJ_CREATE] = Record;
        driver_->MajorFunction[IRP_MJ_CLEANUP] = Record;
        driver_->MajorFunction[IRP_MJ_CLOSE] = Record;
    }

    ~DeviceTest() override
    {
        while (driver_->DeviceObject != nullptr)
        {
            IoDeleteDevice(driver_->DeviceObject);
        }
        DereferenceObject(driver_);
    }

    PDEVICE_OBJECT Create(WideView name, ULONG extension = 0, bool exclusive = false, bool ready = true)
    {
        UNICODE_STRING string = Counted(name);
        PDEVICE_OBJECT device = nullptr;
        EXPECT_EQ(STATUS_SUCCESS,
            IoCreateDevice(driver_, extension, &string, FILE_DEVICE_UNKNOWN, 0, exclusive ? TRUE : FALSE, &device));
        if (ready)
        {
            ClearFlag(device->Flags, DO_DEVICE_INITIALIZING);
        }
        return device;
    }

    NTSTATUS Open(WideView path, PFILE_OBJECT* file)
    {
        OpenRequest request;
        request.Path = path;
        return OpenFile(request, file);
    }

    PDRIVER_OBJECT driver_;
};

TEST_F(DeviceTest, HasNameExtensionAndPlaceInItsDriversList)
{
    PDEVICE_OBJECT first = Create(L"\\Device\\First", 24, false, false);
    PDEVICE_OBJECT second = Create(L"\\Device\\Second");
    EXPECT_EQ(driver_->DeviceObject, second);
    EXPECT_EQ(second->NextDevice, first);
    EXPECT_EQ(first->DriverObject, driver_);
    EXPECT_EQ(first->DeviceType, static_cast<ULONG>(FILE_DEVICE_UNKNOWN));
    EXPECT_TRUE(FlagOn(first->Flags, DO_DEVICE_INITIALIZING));
    ASSERT_NE(first->DeviceExtension, nullptr);
    EXPECT_EQ(second->DeviceExtension, nullptr);

    void* found = nullptr;
    WideString rest;
    ASSERT_EQ(STATUS_SUCCESS, LookupObject(L"\\device\\FIRST", &found, &rest));
    EXPECT_EQ(found, first);
    DereferenceObject(found);
}

TEST_F(DeviceTest, RefusesATakenNameAndLeavesNothing)
{
    PDEVICE_OBJECT first = Create(L"\\Device\\Twice");
    UNICODE_STRING name = Counted(L"\\Device\\TWICE");
    PDEVICE_OBJECT second = nullptr;
    EXPECT_EQ(STATUS_OBJECT_NAME_COLLISION, IoCreateDevice(driver_, 0, &name, FILE_DEVICE_UNKNOWN, 0, FALSE, &second));
    EXPECT_EQ(second, nullptr);
    EXPECT_EQ(driver_->DeviceObject, first);
    EXPECT_EQ(first->NextDevice, nullptr);
}

TEST_F(DeviceTest, FailsByInjection)
{
    FailRoutine("IoCreateDevice");
    UNICODE_STRING name = Counted(L"\\Device\\None");
    PDEVICE_OBJECT device = nullptr;
    EXPECT_EQ(STATUS_INSUFFICIENT_RESOURCES, IoCreateDevice(driver_, 0, &name, FILE_DEVICE_UNKNOWN, 0, FALSE, &device));
    EXPECT_EQ(device, nullptr);
    ResetFailures();
}

TEST_F(DeviceTest, DeletionFreesTheName)
{
    IoDeleteDevice(Create(L"\\Device\\Again"));
    EXPECT_EQ(driver_->DeviceObject, nullptr);
    IoDeleteDevice(Create(L"\\Device\\Again"));
}

TEST_F(DeviceTest, AnOpenFileSendsCreateCleanupClose)
{
    PDEVICE_OBJECT device = Create(L"\\Device\\Open");
    PFILE_OBJECT file = nullptr;
    ASSERT_EQ(STATUS_SUCCESS, Open(L"\\Device\\Open", &file));
    EXPECT_EQ(file->DeviceObject, device);
    EXPECT_EQ(device->ReferenceCount, 1);
    EXPECT_THAT(requests, ElementsAre(IRP_MJ_CREATE));
    CloseFile(file);
    EXPECT_THAT(requests, ElementsAre(IRP_MJ_CREATE, IRP_MJ_CLEANUP, IRP_MJ_CLOSE));
    EXPECT_THAT(modes, ElementsAre(UserMode, UserMode, UserMode));
    EXPECT_EQ(device->ReferenceCount, 0);
    EXPECT_EQ(PendingIrps(), 0u);
}

TEST_F(DeviceTest, ARefusedCreateSendsNothingElse)
{
    PDEVICE_OBJECT device = Create(L"\\Device\\Refuse");
    createAnswer = STATUS_ACCESS_DENIED;
    PFILE_OBJECT file = nullptr;
    EXPECT_EQ(STATUS_ACCESS_DENIED, Open(L"\\Device\\Refuse", &file));
    EXPECT_THAT(requests, ElementsAre(IRP_MJ_CREATE));
    EXPECT_EQ(device->ReferenceCount, 0);
}

TEST_F(DeviceTest, CannotBeOpenedBeforeItsDriverIsReady)
{
    Create(L"\\Device\\Early", 0, false, false);
    PFILE_OBJECT file = nullptr;
    EXPECT_EQ(STATUS_NO_SUCH_DEVICE, Open(L"\\Device\\Early", &file));
    EXPECT_TRUE(requests.empty());
}

TEST_F(DeviceTest, AnExclusiveDeviceOpensOnce)
{
    Create(L"\\Device\\Single", 0, true);
    PFILE_OBJECT first = nullptr;
    PFILE_OBJECT second = nullptr;
    ASSERT_EQ(STATUS_SUCCESS, Open(L"\\Device\\Single", &first));
    EXPECT_EQ(STATUS_ACCESS_DENIED, Open(L"\\Device\\Single", &second));
    CloseFile(first);
    ASSERT_EQ(STATUS_SUCCESS, Open(L"\\Device\\Single", &second));
    CloseFile(second);
}

TEST_F(DeviceTest, AnOpenFileOutlivesItsDevicesDeletion)
{
    PDEVICE_OBJECT device = Create(L"\\Device\\Later");
    PFILE_OBJECT file = nullptr;
    ASSERT_EQ(STATUS_SUCCESS, Open(L"\\Device\\Later", &file));
    IoDeleteDevice(device);
    PFILE_OBJECT other = nullptr;
    EXPECT_EQ(STATUS_OBJECT_NAME_NOT_FOUND, Open(L"\\Device\\Later", &other));
    CloseFile(file);
    EXPECT_THAT(requests, ElementsAre(IRP_MJ_CREATE, IRP_MJ_CLEANUP, IRP_MJ_CLOSE));
}

TEST_F(DeviceTest, EntriesThatTheDriverLeavesAloneRefuse)
{
    PDEVICE_OBJECT device = Create(L"\\Device\\Default");
    PIRP irp = AllocateIrp(device);
    IoGetCurrentIrpStackLocation(irp)->MajorFunction = IRP_MJ_READ;
    EXPECT_EQ(STATUS_INVALID_DEVICE_REQUEST, SendIrp(device, irp, 0, nullptr));
}

NTSTATUS NTAPI EntryThatSucceeds(PDRIVER_OBJECT driver, PUNICODE_STRING path)
{
    UNICODE_STRING name = Counted(L"\\Device\\FromEntry");
    PDEVICE_OBJECT device;
    EXPECT_EQ("\\Registry\\Key", Narrow(View(*path)));
    return IoCreateDevice(driver, 0, &name, FILE_DEVICE_UNKNOWN, 0, FALSE, &device);
}

NTSTATUS NTAPI EntryThatFails(PDRIVER_OBJECT driver, PUNICODE_STRING path)
{
    EntryThatSucceeds(driver, path);
    return STATUS_UNSUCCESSFUL;
}

TEST_F(DeviceTest, DevicesAreReadyAfterASuccessfulEntry)
{
    EXPECT_EQ(STATUS_SUCCESS, StartDriver(driver_, EntryThatSucceeds, L"\\Registry\\Key"));
    EXPECT_FALSE(FlagOn(driver_->DeviceObject->Flags, DO_DEVICE_INITIALIZING));
}

TEST_F(DeviceTest, AFailedEntryLeavesItsDevicesAsTheyAre)
{
    EXPECT_EQ(STATUS_UNSUCCESSFUL, StartDriver(driver_, EntryThatFails, L"\\Registry\\Key"));
    ASSERT_NE(driver_->DeviceObject, nullptr);
    EXPECT_TRUE(FlagOn(driver_->DeviceObject->Flags, DO_DEVICE_INITIALIZING));
}

TEST_F(DeviceTest, EnforcesTheLevel)
{
    PDEVICE_OBJECT device = Create(L"\\Device\\Level");
    EXPECT_DEATH(
        {
            const RaisedIrql raised(DISPATCH_LEVEL);
            IoDeleteDevice(device);
        },
        "IoDeleteDevice");
}

TEST_F(DeviceTest, StopsAtASecondDeletion)
{
    PDEVICE_OBJECT device = Create(L"\\Device\\Twofold");
    PFILE_OBJECT file = nullptr;
    ASSERT_EQ(STATUS_SUCCESS, Open(L"\\Device\\Twofold", &file));
    IoDeleteDevice(device);
    EXPECT_DEATH(IoDeleteDevice(device), "DEVICE_DELETED_TWICE");
    CloseFile(file);
}
}
