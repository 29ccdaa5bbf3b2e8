#include "driver/core/control_device.h"

#include "driver/core/global_state.h"
#include "driver/core/request_gate.h"
#include "driver/util/counted_string.h"

namespace
{
constexpr WCHAR DeviceName[] = L"\\Device\\Tarnveil";
constexpr WCHAR LinkName[] = L"\\DosDevices\\Tarnveil";
}

void CreateControlDevice(PDRIVER_OBJECT driverObject)
{
    UNICODE_STRING deviceName = CountedView(DeviceName);
    UNICODE_STRING linkName = CountedView(LinkName);
    DbgPrint("Create NT Device %wZ\n", &deviceName);
    OpenRequestGate();

    PDEVICE_OBJECT device = nullptr;
    NTSTATUS status = IoCreateDevice(driverObject, 0, &deviceName, FILE_DEVICE_UNKNOWN, 0, FALSE, &device);
    if (NT_SUCCESS(status))
    {
        Global.ControlDevice = device;
        if (NT_SUCCESS(IoCreateSymbolicLink(&linkName, &deviceName)))
        {
            DbgPrint("Tarnveil - IoCreateSymbolicLink success %wZ\n", &linkName);
        }
    }
    driverObject->MajorFunction[IRP_MJ_CREATE] = OpenCloseControlDevice;
    driverObject->MajorFunction[IRP_MJ_CLOSE] = OpenCloseControlDevice;
    driverObject->MajorFunction[IRP_MJ_CLEANUP] = OpenCloseControlDevice;
    driverObject->MajorFunction[IRP_MJ_DEVICE_CONTROL] = DispatchDeviceControl;
}

void DeleteControlDevice()
{
    if (Global.ControlDevice == nullptr)
    {
        return;
    }
    UNICODE_STRING linkName = CountedView(LinkName);
    IoDeleteSymbolicLink(&linkName);
    IoDeleteDevice(Global.ControlDevice);
    Global.ControlDevice = nullptr;
}

NTSTATUS NTAPI OpenCloseControlDevice(PDEVICE_OBJECT, PIRP irp)
{
    irp->IoStatus.Status = STATUS_SUCCESS;
    irp->IoStatus.Information = 0;
    IofCompleteRequest(irp, IO_NO_INCREMENT);
    return STATUS_SUCCESS;
}
