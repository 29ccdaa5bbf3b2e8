#include "hosted/io/device_control.h"

#include "hosted/ex/pool.h"
#include "hosted/ex/pool_memory.h"
#include "hosted/io/device_driver.h"
#include "hosted/io/file.h"
#include "hosted/io/irp.h"
#include "hosted/ke/irql.h"
#include "hosted/ke/user_access.h"

#include <gtest/gtest.h>

#include <cstring>
#include <thread>

using namespace hosted;

namespace
{
constexpr ULONG Code = CTL_CODE(FILE_DEVICE_UNKNOWN, 0x900, METHOD_BUFFERED, FILE_ANY_ACCESS);

// What the dispatch routine does next.
std::function<NTSTATUS(PDEVICE_OBJECT, PIRP)> behaviour;

NTSTATUS NTAPI Behave(PDEVICE_OBJECT device, PIRP irp)
{
    return behaviour(device, irp);
}

NTSTATUS NTAPI Accept(PDEVICE_OBJECT, PIRP irp)
{
    irp->IoStatus.Status = STATUS_SUCCESS;
    IoCompleteRequest(irp, IO_NO_INCREMENT);
    return STATUS_SUCCESS;
}

NTSTATUS Finish(PIRP irp, NTSTATUS status, ULONG_PTR information = 0)
{
    irp->IoStatus.Status = status;
    irp->IoStatus.Information = information;
    IoCompleteRequest(irp, IO_NO_INCREMENT);
    return status;
}

class DeviceControlTest : public testing::Test
{
protected:
    DeviceControlTest() : user_(2 * PAGE_SIZE)
    {
        driver_ = CreateDriverObject(L"\\FileSystem\\Test");
        for (const UCHAR function : {IRP_MJ_CREATE, IRP_MJ_CLEANUP, IRP_MJ_CLOSE})
        {
            driver_->MajorFunction[function] = Accept;
        }
        driver_->MajorFunction[IRP_MJ_DEVICE_CONTROL] = Behave;
        UNICODE_STRING name = Counted(L"\\Device\\Control");
        EXPECT_EQ(STATUS_SUCCESS, IoCreateDevice(driver_, 0, &name, FILE_DEVICE_UNKNOWN, 0, FALSE, &device_));
        ClearFlag(device_->Flags, DO_DEVICE_INITIALIZING);
        OpenRequest request;
        request.Path = L"\\Device\\Control";
        EXPECT_EQ(STATUS_SUCCESS, OpenFile(request, &file_));
        poolBefore_ = LivePoolAllocations();
    }

    ~DeviceControlTest() override
    {
        EXPECT_EQ(poolBefore_, LivePoolAllocations());
        EXPECT_EQ(0u, PendingIrps());
        behaviour = {};
        CloseFile(file_);
        IoDeleteDevice(device_);
        DereferenceObject(driver_);
    }

    // Input at the start of the program's memory, output in its second page.
    DeviceControlRequest Request(std::string_view input, ULONG outputLength)
    {
        std::memcpy(user_.Base(), input.data(), input.size());
        DeviceControlRequest request;
        request.Code = Code;
        request.Input = user_.Base();
        request.InputLength = static_cast<ULONG>(input.size());
        request.Output = Output();
        request.OutputLength = outputLength;
        return request;
    }

    UCHAR* Output() { return user_.Base() + PAGE_SIZE; }

    NTSTATUS Send(const DeviceControlRequest& request) { return DeviceControl(file_, request, &status_); }

    UserRegion user_;
    PDRIVER_OBJECT driver_;
    PDEVICE_OBJECT device_ = nullptr;
    PFILE_OBJECT file_ = nullptr;
    IO_STATUS_BLOCK status_{};
    size_t poolBefore_ = 0;
};

TEST_F(DeviceControlTest, TheDriverSeesTheRequestAsItWasMade)
{
    behaviour = [this](PDEVICE_OBJECT device, PIRP irp)
    {
        EXPECT_EQ(device, device_);
        EXPECT_EQ(UserMode, irp->RequestorMode);
        EXPECT_EQ(Output(), irp->UserBuffer);
        PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
        EXPECT_EQ(IRP_MJ_DEVICE_CONTROL, stack->MajorFunction);
        EXPECT_EQ(Code, stack->Parameters.DeviceIoControl.IoControlCode);
        EXPECT_EQ(3u, stack->Parameters.DeviceIoControl.InputBufferLength);
        EXPECT_EQ(8u, stack->Parameters.DeviceIoControl.OutputBufferLength);
        EXPECT_EQ(file_, stack->FileObject);
        auto* system = static_cast<UCHAR*>(irp->AssociatedIrp.SystemBuffer);
        EXPECT_EQ(8u, PoolAllocationSize(system));
        EXPECT_EQ(0, std::memcmp(system, "abc", 3));
        for (int i = 3; i < 8; ++i)
        {
            EXPECT_EQ(PoolFreshByte, system[i]);
        }
        EXPECT_TRUE(IsPoolAddress(irp));
        EXPECT_TRUE(IsPoolAddress(stack));
        return Finish(irp, STATUS_SUCCESS);
    };
    EXPECT_EQ(STATUS_SUCCESS, Send(Request("abc", 8)));
}

TEST_F(DeviceControlTest, WithoutLengthsThereIsNoSystemBuffer)
{
    behaviour = [](PDEVICE_OBJECT, PIRP irp)
    {
        EXPECT_EQ(nullptr, irp->AssociatedIrp.SystemBuffer);
        return Finish(irp, STATUS_SUCCESS);
    };
    EXPECT_EQ(STATUS_SUCCESS, Send(Request("", 0)));
}

TEST_F(DeviceControlTest, CopiesAsManyBytesAsTheDriverReports)
{
    behaviour = [](PDEVICE_OBJECT, PIRP irp)
    {
        std::memcpy(irp->AssociatedIrp.SystemBuffer, "result", 6);
        return Finish(irp, STATUS_SUCCESS, 4);
    };
    std::memcpy(Output(), "......", 6);
    EXPECT_EQ(STATUS_SUCCESS, Send(Request("in", 6)));
    EXPECT_EQ(4u, status_.Information);
    EXPECT_EQ(0, std::memcmp(Output(), "resu..", 6));
}

TEST_F(DeviceControlTest, CopiesForAWarningAndNotForAnError)
{
    for (const NTSTATUS answer : {STATUS_BUFFER_OVERFLOW, STATUS_INVALID_PARAMETER})
    {
        std::memcpy(Output(), "....", 4);
        behaviour = [answer](PDEVICE_OBJECT, PIRP irp)
        {
            std::memcpy(irp->AssociatedIrp.SystemBuffer, "data", 4);
            return Finish(irp, answer, 4);
        };
        EXPECT_EQ(answer, Send(Request("", 4)));
        EXPECT_EQ(4u, status_.Information);
        EXPECT_EQ(0, std::memcmp(Output(), answer == STATUS_BUFFER_OVERFLOW ? "data" : "....", 4));
    }
}

TEST_F(DeviceControlTest, RefusesBuffersThatTheProgramCannotUse)
{
    behaviour = [](PDEVICE_OBJECT, PIRP irp)
    {
        ADD_FAILURE() << "the request came through";
        return Finish(irp, STATUS_SUCCESS);
    };
    DeviceControlRequest request = Request("abc", 4);
    UserRegion readOnly(PAGE_SIZE);
    readOnly.Protect(true, false);
    request.Output = readOnly.Base();
    EXPECT_EQ(STATUS_ACCESS_VIOLATION, Send(request));
    char kernel[4];
    request.Output = kernel;
    EXPECT_EQ(STATUS_ACCESS_VIOLATION, Send(request));
    request = Request("abc", 4);
    UserRegion lost(PAGE_SIZE);
    lost.Protect(false, false);
    request.Input = lost.Base();
    EXPECT_EQ(STATUS_ACCESS_VIOLATION, Send(request));
    request = Request("abc", 4);
    request.Output = user_.Tail(2);
    EXPECT_EQ(STATUS_ACCESS_VIOLATION, Send(request));
}

TEST_F(DeviceControlTest, LengthsWithoutBuffersCountAsNone)
{
    behaviour = [](PDEVICE_OBJECT, PIRP irp)
    {
        const auto& parameters = IoGetCurrentIrpStackLocation(irp)->Parameters.DeviceIoControl;
        EXPECT_EQ(0u, parameters.OutputBufferLength);
        EXPECT_EQ(0u, parameters.InputBufferLength);
        EXPECT_EQ(nullptr, irp->UserBuffer);
        return Finish(irp, STATUS_SUCCESS);
    };
    DeviceControlRequest request;
    request.Code = Code;
    request.InputLength = 4;
    request.OutputLength = 4;
    EXPECT_EQ(STATUS_SUCCESS, Send(request));
}

TEST_F(DeviceControlTest, WithoutALookTheDriverMeetsBuffersAsTheyAre)
{
    behaviour = [](PDEVICE_OBJECT, PIRP irp)
    {
        EXPECT_EQ(nullptr, irp->UserBuffer);
        EXPECT_EQ(4u, IoGetCurrentIrpStackLocation(irp)->Parameters.DeviceIoControl.OutputBufferLength);
        return Finish(irp, STATUS_INVALID_PARAMETER);
    };
    DeviceControlRequest request = Request("", 4);
    request.Output = nullptr;
    request.Probe = false;
    EXPECT_EQ(STATUS_INVALID_PARAMETER, Send(request));
}

TEST_F(DeviceControlTest, AFaultAtTheFinalCopyBecomesTheStatus)
{
    UserRegion lost(PAGE_SIZE);
    behaviour = [](PDEVICE_OBJECT, PIRP irp) { return Finish(irp, STATUS_SUCCESS, 4); };
    DeviceControlRequest request = Request("", 4);
    request.Output = lost.Base();
    request.BeforeDispatch = [&lost] { lost.Protect(false, false); };
    EXPECT_EQ(STATUS_ACCESS_VIOLATION, Send(request));
}

TEST_F(DeviceControlTest, NeitherMethodHandsTheAddressesThrough)
{
    DeviceControlRequest request = Request("abc", 4);
    request.Code = Code | 3;
    behaviour = [&request](PDEVICE_OBJECT, PIRP irp)
    {
        EXPECT_EQ(request.Input, IoGetCurrentIrpStackLocation(irp)->Parameters.DeviceIoControl.Type3InputBuffer);
        EXPECT_EQ(nullptr, irp->AssociatedIrp.SystemBuffer);
        return Finish(irp, STATUS_SUCCESS, 100);
    };
    EXPECT_EQ(STATUS_SUCCESS, Send(request));
    request.Code = Code | 1;
    EXPECT_EQ(STATUS_NOT_SUPPORTED, Send(request));
}

TEST_F(DeviceControlTest, WaitsForARequestThatIsCompletedLater)
{
    std::thread later;
    behaviour = [&later](PDEVICE_OBJECT, PIRP irp)
    {
        IoGetCurrentIrpStackLocation(irp)->Control |= 1; // SL_PENDING_RETURNED
        later = std::thread([irp] { Finish(irp, STATUS_TIMEOUT, 0); });
        return STATUS_PENDING;
    };
    EXPECT_EQ(STATUS_TIMEOUT, Send(Request("", 4)));
    later.join();
}

TEST_F(DeviceControlTest, APacketThatIsNeverSentCanBeFreed)
{
    PIRP irp = nullptr;
    ASSERT_EQ(STATUS_SUCCESS, BuildDeviceControl(device_, nullptr, Request("abc", 16), &irp));
    FreeIrp(irp);
}

using DeviceControlDeathTest = DeviceControlTest;

TEST_F(DeviceControlDeathTest, StopsAtBrokenRules)
{
    const auto dies = [this](const char* rule, const std::function<NTSTATUS(PIRP)>& body)
    {
        behaviour = [&body](PDEVICE_OBJECT, PIRP irp) { return body(irp); };
        EXPECT_DEATH(Send(Request("abc", 4)), rule);
    };
    dies("IRP_NOT_COMPLETED", [](PIRP) { return STATUS_SUCCESS; });
    dies("IRP_STATUS_MISMATCH",
        [](PIRP irp)
        {
            Finish(irp, STATUS_SUCCESS);
            return STATUS_UNSUCCESSFUL;
        });
    dies("IRP_PENDING_MISMATCH",
        [](PIRP irp)
        {
            Finish(irp, STATUS_SUCCESS);
            return STATUS_PENDING;
        });
    dies("IRP_COMPLETED_AS_PENDING", [](PIRP irp) { return Finish(irp, STATUS_PENDING); });
    dies("MULTIPLE_IRP_COMPLETE_REQUESTS",
        [](PIRP irp)
        {
            Finish(irp, STATUS_SUCCESS);
            IoCompleteRequest(irp, IO_NO_INCREMENT);
            return STATUS_SUCCESS;
        });
    dies("BUFFERED_INFORMATION_TOO_LARGE", [](PIRP irp) { return Finish(irp, STATUS_SUCCESS, 5); });
    dies("IRQL_UNEXPECTED_VALUE",
        [](PIRP irp)
        {
            const NTSTATUS status = Finish(irp, STATUS_SUCCESS);
            SetIrql(APC_LEVEL);
            return status;
        });
    dies("IofCompleteRequest",
        [](PIRP irp)
        {
            const RaisedIrql raised(HIGH_LEVEL);
            return Finish(irp, STATUS_SUCCESS);
        });
}
}
