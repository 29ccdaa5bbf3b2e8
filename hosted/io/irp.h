// I/O request packets of the I/O manager's own making: sent to one driver, awaited, finished.
#pragma once

#include <ntifs.h>

namespace hosted
{
// Non-paged pool for the I/O manager itself: watched like every other allocation, never failing by injection. Freed
// with ExFreePoolWithTag.
void* AllocateIoPool(SIZE_T bytes, ULONG tag);

// A zeroed packet with one stack location, both in one pool block, so that overruns are seen. Owned by SendIrp from
// the moment it is sent. The caller fills the stack location's parameters.
PIRP AllocateIrp(PDEVICE_OBJECT device);
// A packet that never was sent, and its system buffer.
void FreeIrp(PIRP irp);

// Calls the driver's dispatch routine and waits until the packet is completed. Then, for a buffered request with an
// output buffer and a status that is no error, copies the Information bytes from the system buffer to the caller's
// buffer (a fault there becomes the status), and frees packet and system buffer. Returns the final status;
// *information, if wanted, receives the count that the driver completed with, also for errors.
//
// Bug checks: a routine that returns at another level, that returns without completing and without having said so
// (STATUS_PENDING with SL_PENDING_RETURNED), another status than it completed with, or more Information than
// `outputLength` for a buffered request.
NTSTATUS SendIrp(PDEVICE_OBJECT device, PIRP irp, ULONG outputLength, ULONG_PTR* information);

// Packets sent and not yet completed, for checks at the end of a run.
SIZE_T PendingIrps();
}
