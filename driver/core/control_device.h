// The control device by which the agent steers the driver.
#pragma once

#include <ntifs.h>

// Creates \Device\Tarnveil and its link, opens the request gate and fills the dispatch table. A failure leaves the
// driver without a control device, or the device without a link, and is no failure of the load. IRQL PASSIVE_LEVEL.
void CreateControlDevice(PDRIVER_OBJECT driverObject);
// Deletes both, if there is a device. IRQL PASSIVE_LEVEL.
void DeleteControlDevice();

// Open, close and cleanup: any process may, and each succeeds. IRQL PASSIVE_LEVEL.
NTSTATUS NTAPI OpenCloseControlDevice(PDEVICE_OBJECT device, PIRP irp);
// Device-control requests. Completes every request that it can decode and returns the status it completed with; a
// request without a packet or stack location is printed and answered with STATUS_SUCCESS, uncompleted. After the filter
// was unloaded: STATUS_DELETE_PENDING. IRQL PASSIVE_LEVEL, in the context of the process that asks.
NTSTATUS NTAPI DispatchDeviceControl(PDEVICE_OBJECT device, PIRP irp);
