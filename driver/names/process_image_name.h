// Image paths of processes.
#pragma once

#include "driver/util/counted_string.h"
#include "driver/util/kernel_handle.h"

// The image path of a process that is being created: a drive-letter path on a local volume, a UNC path or the
// system's own image name for a network file. STATUS_INSUFFICIENT_RESOURCES without memory or without any name, else
// the failure to name the volume; each is printed. IRQL PASSIVE_LEVEL.
NTSTATUS GetFileNameFromCreateInfo(const PS_CREATE_NOTIFY_INFO* createInfo, CountedString* path);

// The NT device path of a running process's image: a counted string followed by its characters, in one pool block.
// `process` is referenced when the look-up succeeded, also when a later step fails. The failures to look the process
// up, to open it and to query it; each is printed. Success without a name when the query gives none. IRQL up to
// APC_LEVEL, at DISPATCH_LEVEL and above STATUS_UNSUCCESSFUL.
NTSTATUS GetProcessImageNameFromProcessId(
    HANDLE processId, PoolPointer<UNICODE_STRING>* imageName, ProcessReference* process);
