#include "tests/unit/hosted/machine/fake_driver.h"

#include <fault_guard.h>

#include <algorithm>
#include <cstring>

namespace fake_driver
{
Behaviour behaviour;
std::vector<Request> requests;

namespace
{
constexpr ULONG Tag = 'ekaF';
PDEVICE_OBJECT device;
PFLT_FILTER filter;
void* forgotten;

void NTAPI Notify(PEPROCESS, HANDLE, PPS_CREATE_NOTIFY_INFO) {}

NTSTATUS Complete(PIRP irp, NTSTATUS status, ULONG_PTR information)
{
    irp->IoStatus.Status = status;
    irp->IoStatus.Information = information;
    IoCompleteRequest(irp, IO_NO_INCREMENT);
    return status;
}

NTSTATUS NTAPI Accept(PDEVICE_OBJECT, PIRP irp)
{
    return Complete(irp, STATUS_SUCCESS, 0);
}

NTSTATUS NTAPI Control(PDEVICE_OBJECT, PIRP irp)
{
    const auto& parameters = IoGetCurrentIrpStackLocation(irp)->Parameters.DeviceIoControl;
    const auto* input = static_cast<const char*>(irp->AssociatedIrp.SystemBuffer);
    const std::string bytes = input == nullptr ? std::string() : std::string(input, parameters.InputBufferLength);
    requests.push_back({parameters.IoControlCode, bytes, parameters.OutputBufferLength, PsGetCurrentProcessId()});
    if (!behaviour.Direct.empty())
    {
        auto* to = static_cast<volatile char*>(irp->UserBuffer);
        const char* from = behaviour.Direct.data();
        const SIZE_T count = behaviour.Direct.size();
        const NTSTATUS status = TryAccess(
            [to, from, count]
            {
                for (SIZE_T i = 0; i < count; ++i)
                {
                    *reinterpret_cast<volatile char*>(reinterpret_cast<ULONG_PTR>(to) + i) = from[i];
                }
            });
        return Complete(irp, NT_SUCCESS(status) ? behaviour.Answer : status, 0);
    }
    const SIZE_T count = std::min<SIZE_T>(behaviour.Buffered.size(), parameters.OutputBufferLength);
    if (count != 0)
    {
        std::memcpy(irp->AssociatedIrp.SystemBuffer, behaviour.Buffered.data(), count);
    }
    return Complete(irp, behaviour.Answer, count);
}

UNICODE_STRING Name(PCWSTR text)
{
    UNICODE_STRING name;
    RtlInitUnicodeString(&name, text);
    return name;
}

NTSTATUS NTAPI Unload(FLT_FILTER_UNLOAD_FLAGS)
{
    PsSetCreateProcessNotifyRoutineEx(Notify, TRUE);
    if (!behaviour.TakeFilterBack)
    {
        FltUnregisterFilter(filter);
    }
    UNICODE_STRING link = Name(L"\\DosDevices\\Tarnveil");
    IoDeleteSymbolicLink(&link);
    IoDeleteDevice(device);
    return STATUS_SUCCESS;
}
}

void Reset()
{
    behaviour = {};
    requests.clear();
}

void FreeForgotten()
{
    ExFreePoolWithTag(forgotten, Tag);
}

NTSTATUS NTAPI Entry(PDRIVER_OBJECT driver, PUNICODE_STRING)
{
    UNICODE_STRING name = Name(L"\\Device\\Tarnveil");
    UNICODE_STRING link = Name(L"\\DosDevices\\Tarnveil");
    if (behaviour.ForgetPool)
    {
        forgotten = ExAllocatePoolWithTag(NonPagedPool, 16, Tag);
    }
    IoCreateDevice(driver, 0, &name, FILE_DEVICE_UNKNOWN, 0, FALSE, &device);
    IoCreateSymbolicLink(&link, &name);
    for (const UCHAR function : {IRP_MJ_CREATE, IRP_MJ_CLEANUP, IRP_MJ_CLOSE})
    {
        driver->MajorFunction[function] = Accept;
    }
    driver->MajorFunction[IRP_MJ_DEVICE_CONTROL] = Control;
    static const FLT_CONTEXT_REGISTRATION contexts[] = {{FLT_CONTEXT_END, 0, nullptr, 0, 0, nullptr, nullptr, nullptr}};
    static const FLT_OPERATION_REGISTRATION operations[] = {{IRP_MJ_OPERATION_END, 0, nullptr, nullptr, nullptr}};
    FLT_REGISTRATION registration{};
    registration.Size = sizeof(registration);
    registration.Version = FLT_REGISTRATION_VERSION_0202;
    registration.ContextRegistration = contexts;
    registration.OperationRegistration = operations;
    registration.FilterUnloadCallback = Unload;
    const NTSTATUS status = FltRegisterFilter(driver, &registration, &filter);
    if (!NT_SUCCESS(status))
    {
        return status;
    }
    FltStartFiltering(filter);
    PsSetCreateProcessNotifyRoutineEx(Notify, FALSE);
    if (behaviour.TakeFilterBack)
    {
        FltUnregisterFilter(filter);
    }
    return behaviour.FailEntryAtTheEnd ? STATUS_UNSUCCESSFUL : STATUS_SUCCESS;
}
}
