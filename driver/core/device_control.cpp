#include "driver/core/control_device.h"
#include "driver/core/request.h"
#include "driver/core/request_gate.h"

namespace
{
constexpr ULONG AnyLength = 0xffffffff;
constexpr ULONG SettingIdBytes = sizeof(ULONG);

// A length that is named must match exactly. Handlers that report a wrong length themselves name none.
struct RequestEntry
{
    ULONG Code;
    ULONG OutputLength;
    RequestHandler Handler;
};

constexpr RequestEntry Requests[] = {
    {IOCTL_SET_CRYPTKEY, AnyLength, SetCryptKey},
    {IOCTL_ADD_PARENT_PROCESS, SettingIdBytes, AddParentProcess},
    {IOCTL_ADD_PROCESS, SettingIdBytes, AddProcess},
    {IOCTL_DEL_PROCESS, AnyLength, DeleteProcess},
    {IOCTL_START, AnyLength, Start},
    {IOCTL_STOP, AnyLength, Stop},
    {IOCTL_START_LOGGING, AnyLength, StartLoggingRequest},
    {IOCTL_STOP_LOGGING, AnyLength, StopLoggingRequest},
    {IOCTL_GET_LOG_DATA, AnyLength, GetLogDataRequest},
    {IOCTL_IS_UNDER_SANDBOX, AnyLength, IsUnderSandbox},
    {IOCTL_IS_EXIST_UNDER_SANDBOX, AnyLength, IsExistUnderSandbox},
    {IOCTL_GET_PID_LIST_UNDER_SANDBOX, AnyLength, GetPidListUnderSandbox},
    {IOCTL_ADD_EXC_PROCESS, SettingIdBytes, AddExclusionProcess},
    {IOCTL_SET_ENCRYPTION, AnyLength, SetEncryption},
    {IOCTL_ADD_FILE_PROTECTION, SettingIdBytes, AddFileProtection},
    {IOCTL_DEL_FILE_PROTECTION, AnyLength, DeleteFileProtection},
    {IOCTL_OUTPUT_CURRENT_PARAM, AnyLength, OutputCurrentParam},
};

NTSTATUS HandleRequest(ULONG code, Request& request)
{
    for (const RequestEntry& entry : Requests)
    {
        if (entry.Code != code)
        {
            continue;
        }
        if (entry.OutputLength != AnyLength && entry.OutputLength != request.OutputLength)
        {
            return STATUS_INVALID_PARAMETER;
        }
        return entry.Handler(request);
    }
    return STATUS_INVALID_PARAMETER;
}

NTSTATUS Complete(PIRP irp, NTSTATUS status, ULONG_PTR information)
{
    irp->IoStatus.Status = status;
    irp->IoStatus.Information = information;
    IofCompleteRequest(irp, IO_NO_INCREMENT);
    return status;
}
}

NTSTATUS NTAPI DispatchDeviceControl(PDEVICE_OBJECT, PIRP irp)
{
    if (irp == nullptr)
    {
        DbgPrint("Tarnveil - Irp NULL\n");
        return STATUS_SUCCESS;
    }
    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
    if (stack == nullptr)
    {
        DbgPrint("Tarnveil - CurrentIoStackLocation NULL\n");
        return STATUS_SUCCESS;
    }
    if (!BeginRequest())
    {
        // Through a handle that outlives the filter.
        return Complete(irp, STATUS_DELETE_PENDING, 0);
    }
    const auto& control = stack->Parameters.DeviceIoControl;
    Request request = {irp->AssociatedIrp.SystemBuffer, control.InputBufferLength, irp->UserBuffer,
        control.OutputBufferLength, irp->RequestorMode, 0};
    NTSTATUS status = HandleRequest(control.IoControlCode, request);
    EndRequest();
    return Complete(irp, status, request.Information);
}
