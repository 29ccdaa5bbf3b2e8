// Device-control requests from programs to a device that they have open.
#pragma once

#include <ntifs.h>

#include <functional>

namespace hosted
{
struct DeviceControlRequest
{
    ULONG Code = 0;
    const void* Input = nullptr;
    ULONG InputLength = 0; // bytes
    void* Output = nullptr;
    ULONG OutputLength = 0; // bytes
    KPROCESSOR_MODE Mode = UserMode;
    // Whether the I/O manager looks at a program's buffers before the driver does: unreadable input or unwritable
    // output then fails with STATUS_ACCESS_VIOLATION, and lengths without a buffer count as 0.
    bool Probe = true;
    // Runs between that look and the driver: another thread of the program unmaps a buffer, say.
    std::function<void()> BeforeDispatch;
};

// A packet as the driver sees it: system buffer of max(input, output) bytes that begins with the input and is not
// cleared behind it (none when both lengths are 0), the caller's output buffer as it is. `file` may be null.
// On success the packet is the caller's, for SendIrp or FreeIrp. STATUS_ACCESS_VIOLATION: the input cannot be read.
NTSTATUS BuildDeviceControl(PDEVICE_OBJECT device, PFILE_OBJECT file, const DeviceControlRequest& request, PIRP* irp);

// Builds, sends, waits. status->Information is what the driver completed with, also for errors.
// STATUS_NOT_SUPPORTED for the direct transfer methods, which no device here uses.
NTSTATUS DeviceControl(PFILE_OBJECT file, const DeviceControlRequest& request, IO_STATUS_BLOCK* status);
}
