// Device objects, and opens of a device as such (no file system behind it).
#pragma once

#include "hosted/ob/object.h"

namespace hosted
{
// The three steps of an open file object's life, sent to the device's driver as user-mode requests and awaited.
// A create counts as an open of the device when it succeeds; the close gives that back, and completes a deletion
// that was waiting for it. STATUS_NO_SUCH_DEVICE for a device that is not ready yet or is being deleted,
// STATUS_ACCESS_DENIED for an exclusive device that is open already, otherwise what the driver completes with.
// IRQL: PASSIVE_LEVEL.
NTSTATUS SendDeviceCreate(PDEVICE_OBJECT device, PFILE_OBJECT file);
NTSTATUS SendDeviceCleanup(PDEVICE_OBJECT device, PFILE_OBJECT file);
NTSTATUS SendDeviceClose(PDEVICE_OBJECT device, PFILE_OBJECT file);
// One write of `length` bytes. STATUS_INVALID_DEVICE_REQUEST from a driver that takes none. The buffer reaches the
// driver as it is; bug check for a device that wants it buffered. IRQL: PASSIVE_LEVEL.
NTSTATUS SendDeviceWrite(PDEVICE_OBJECT device, PFILE_OBJECT file, void* buffer, ULONG length, LONGLONG offset,
    KPROCESSOR_MODE mode, ULONG_PTR* written);
}
