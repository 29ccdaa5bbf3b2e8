#include "hosted/io/device_control.h"

#include "hosted/io/irp.h"
#include "hosted/ke/irql.h"
#include "hosted/ke/user_access.h"

#include <fault_guard.h>

#include <algorithm>

namespace hosted
{
namespace
{
constexpr ULONG MethodMask = 3;
constexpr ULONG MethodNeither = 3;
constexpr ULONG BufferTag = 0x20206f49; // "Io  "

// Every page of the range once, as a program could touch it.
NTSTATUS ProbeRange(const void* address, ULONG length, bool write)
{
    if (length == 0)
    {
        return STATUS_SUCCESS;
    }
    auto* first = static_cast<volatile UCHAR*>(const_cast<void*>(address));
    auto* last = first + length - 1;
    if (!IsUserAddress(first) || !IsUserAddress(last))
    {
        return STATUS_ACCESS_VIOLATION;
    }
    return TryAccess(
        [first, last, write]
        {
            for (auto* at = first; at <= last; at = static_cast<volatile UCHAR*>(PAGE_ALIGN(at)) + PAGE_SIZE)
            {
                const UCHAR byte = *at;
                if (write)
                {
                    *at = byte;
                }
            }
        });
}

NTSTATUS ProbeBuffers(DeviceControlRequest& request)
{
    if (request.Mode == KernelMode || !request.Probe || (request.Code & MethodMask) == MethodNeither)
    {
        return STATUS_SUCCESS;
    }
    request.InputLength = request.Input == nullptr ? 0 : request.InputLength;
    request.OutputLength = request.Output == nullptr ? 0 : request.OutputLength;
    const NTSTATUS status = ProbeRange(request.Output, request.OutputLength, true);
    return NT_SUCCESS(status) ? ProbeRange(request.Input, request.InputLength, false) : status;
}

NTSTATUS AttachSystemBuffer(PIRP irp, const DeviceControlRequest& request)
{
    const ULONG bytes = std::max(request.InputLength, request.OutputLength);
    if (bytes == 0)
    {
        return STATUS_SUCCESS;
    }
    void* buffer = AllocateIoPool(bytes, BufferTag);
    irp->AssociatedIrp.SystemBuffer = buffer;
    irp->Flags |= IRP_BUFFERED_IO | IRP_DEALLOCATE_BUFFER | (request.Output == nullptr ? 0 : IRP_INPUT_OPERATION);
    if (request.InputLength == 0)
    {
        return STATUS_SUCCESS;
    }
    const void* input = request.Input;
    const ULONG length = request.InputLength;
    return TryAccess([buffer, input, length] { __builtin_memcpy(buffer, input, length); });
}
}

NTSTATUS BuildDeviceControl(PDEVICE_OBJECT device, PFILE_OBJECT file, const DeviceControlRequest& request, PIRP* irp)
{
    PIRP packet = AllocateIrp(device);
    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(packet);
    stack->MajorFunction = IRP_MJ_DEVICE_CONTROL;
    stack->FileObject = file;
    stack->Parameters.DeviceIoControl.OutputBufferLength = request.OutputLength;
    stack->Parameters.DeviceIoControl.InputBufferLength = request.InputLength;
    stack->Parameters.DeviceIoControl.IoControlCode = request.Code;
    packet->Flags = IRP_SYNCHRONOUS_API;
    packet->RequestorMode = request.Mode;
    packet->UserBuffer = request.Output;
    packet->Tail.Overlay.OriginalFileObject = file;
    if ((request.Code & MethodMask) == MethodNeither)
    {
        stack->Parameters.DeviceIoControl.Type3InputBuffer = const_cast<void*>(request.Input);
    }
    else
    {
        const NTSTATUS status = AttachSystemBuffer(packet, request);
        if (!NT_SUCCESS(status))
        {
            FreeIrp(packet);
            return status;
        }
    }
    *irp = packet;
    return STATUS_SUCCESS;
}

NTSTATUS DeviceControl(PFILE_OBJECT file, const DeviceControlRequest& request, IO_STATUS_BLOCK* status)
{
    RequireIrql(PASSIVE_LEVEL, "DeviceControl");
    const ULONG method = request.Code & MethodMask;
    DeviceControlRequest probed = request;
    PIRP irp = nullptr;
    status->Information = 0;
    status->Status = method == METHOD_BUFFERED || method == MethodNeither ? ProbeBuffers(probed) : STATUS_NOT_SUPPORTED;
    if (NT_SUCCESS(status->Status))
    {
        status->Status = BuildDeviceControl(file->DeviceObject, file, probed, &irp);
    }
    if (!NT_SUCCESS(status->Status))
    {
        return status->Status;
    }
    if (probed.BeforeDispatch)
    {
        probed.BeforeDispatch();
    }
    status->Status = SendIrp(file->DeviceObject, irp, probed.OutputLength, &status->Information);
    return status->Status;
}
}
