// Driver objects, and the I/O manager's part in starting a driver.
#pragma once

#include "hosted/ob/object.h"

namespace hosted
{
extern const ObjectType DriverType;

// A driver object named like "\FileSystem\Tarnveil", every entry of its dispatch table pointing to a routine that
// completes with STATUS_INVALID_DEVICE_REQUEST. One reference for the caller.
PDRIVER_OBJECT CreateDriverObject(WideView name);

// Calls the entry routine on a thread of the system process at PASSIVE_LEVEL. When it succeeds the devices it made
// can be opened (DO_DEVICE_INITIALIZING goes); when it fails nothing is undone. Returns its status; bug check when it
// returns at another level.
NTSTATUS StartDriver(PDRIVER_OBJECT driver, DRIVER_INITIALIZE* entry, WideView registryPath);
}
