#include "hosted/io/device_driver.h"

#include "hosted/ke/bug_check.h"
#include "hosted/ke/irql.h"
#include "hosted/ps/process.h"

#include <algorithm>
#include <iterator>
#include <new>

namespace hosted
{
namespace
{
constexpr CSHORT DriverObjectKind = 4;

struct DriverBody
{
    DRIVER_OBJECT Object;
    WideString Name;
};

void DeleteDriver(void* body)
{
    static_cast<DriverBody*>(body)->~DriverBody();
}

NTSTATUS NTAPI RefuseRequest(PDEVICE_OBJECT, PIRP irp)
{
    irp->IoStatus.Status = STATUS_INVALID_DEVICE_REQUEST;
    irp->IoStatus.Information = 0;
    IoCompleteRequest(irp, IO_NO_INCREMENT);
    return STATUS_INVALID_DEVICE_REQUEST;
}
}

const ObjectType DriverType = {"Driver", nullptr, DeleteDriver};

PDRIVER_OBJECT CreateDriverObject(WideView name)
{
    auto* body = new (CreateObject(DriverType, sizeof(DriverBody))) DriverBody{};
    body->Name = name;
    body->Object.Type = DriverObjectKind;
    body->Object.Size = sizeof(DRIVER_OBJECT);
    body->Object.DriverName = Counted(body->Name);
    std::ranges::fill(body->Object.MajorFunction, &RefuseRequest);
    return &body->Object;
}

NTSTATUS StartDriver(PDRIVER_OBJECT driver, DRIVER_INITIALIZE* entry, WideView registryPath)
{
    RequireIrql(PASSIVE_LEVEL, "StartDriver");
    const AttachedProcess system(SystemProcess());
    driver->DriverInit = entry;
    UNICODE_STRING path = Counted(registryPath);
    const NTSTATUS status = entry(driver, &path);
    if (CurrentIrql() != PASSIVE_LEVEL)
    {
        BugCheck("IRQL_UNEXPECTED_VALUE", "the driver's entry routine returned at level %u", CurrentIrql());
    }
    if (NT_SUCCESS(status))
    {
        for (PDEVICE_OBJECT device = driver->DeviceObject; device != nullptr; device = device->NextDevice)
        {
            ClearFlag(device->Flags, DO_DEVICE_INITIALIZING);
        }
    }
    return status;
}
}
