// Putting processes that already run under watch when the agent adds a setting. A snapshot is the chain of records
// that QuerySystemInformation gives. Failures of single processes do not fail a scan. IRQL PASSIVE_LEVEL, no locks
// held.
#pragma once

#include <ntifs.h>

// STATUS_INVALID_PARAMETER for a null snapshot or path, else the failure to turn the path into its NT form.
NTSTATUS RegistMonitoredParentProcess(
    const SYSTEM_PROCESS_INFORMATION* snapshot, PCUNICODE_STRING path, ULONG settingId);
NTSTATUS RegistMonitoredProcess(const SYSTEM_PROCESS_INFORMATION* snapshot, PCUNICODE_STRING path, ULONG settingId);
// Descendants of monitored parents. STATUS_INVALID_PARAMETER for a null snapshot.
NTSTATUS RegistMonitoredChildrenProcess(const SYSTEM_PROCESS_INFORMATION* snapshot);

// The record of the process that created another one: the first with the creator's id that is not younger, so that a
// process that took over the creator's id is not mistaken for it. Null when there is none.
const SYSTEM_PROCESS_INFORMATION* FindCreatorRecord(
    const SYSTEM_PROCESS_INFORMATION* snapshot, const SYSTEM_PROCESS_INFORMATION* record);
