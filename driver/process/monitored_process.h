// The live processes that matter: monitored parents, and processes under the sandbox. Each list has its own lock,
// taken for one look-up, one insertion or one unlinking pass; no two are held at once. A process can therefore be
// judged between two look-ups. IRQL PASSIVE_LEVEL throughout.
#pragma once

#include "driver/util/list.h"

// Why a process is under the sandbox: its own image matched a setting, or it descends from a monitored parent.
// Entries of the parent list always carry the second value.
inline constexpr ULONG MonitoredKindProcess = 1;
inline constexpr ULONG MonitoredKindChild = 2;
inline constexpr ULONG MonitoredKindAny = MonitoredKindProcess | MonitoredKindChild;

struct MonitoredProcessEntry
{
    LIST_ENTRY Links;
    // As the system handed it over, for whoever looks with a debugger; not referenced and never followed.
    PEPROCESS Process;
    HANDLE ProcessId;
    // Of the setting that put the process here; owned by that setting.
    ULONG SettingId;
    ULONG Kind;
};

// STATUS_INVALID_PARAMETER for a null process or id, STATUS_MEMORY_NOT_ALLOCATED without memory. Whether the process
// is there already is for the caller to know.
NTSTATUS InsertMonitoredParent(PEPROCESS process, HANDLE processId, ULONG settingId);
NTSTATUS InsertMonitoredProcess(PEPROCESS process, HANDLE processId, ULONG kind, ULONG settingId);

// True, with the setting id of the process's first entry (of a kind in the mask); *settingId keeps its value otherwise.
// False for a null id.
bool FindMonitoredParent(HANDLE processId, PULONG settingId);
bool FindMonitoredProcess(HANDLE processId, ULONG kindMask, PULONG settingId);
bool IsMonitoredProcessListEmpty();

// Writes the count of processes under the sandbox and then their ids, 32 bits each, in list order. `buffer` may be
// the caller's own memory: call inside TryAccess. STATUS_INVALID_PARAMETER for null, STATUS_BUFFER_TOO_SMALL for
// less than 4 bytes, or, with the count left in the first word, for less than the ids need.
NTSTATUS GetMonitoredPidList(PULONG buffer, ULONG bytes);

// Take out the entries of a process that exits, of a setting that is deleted, or all, with a log record for each;
// without memory to remember them they go unrecorded. Clearing writes records only when `log` is set.
void RemoveMonitoredParentsByProcess(HANDLE processId);
void RemoveMonitoredParentsById(ULONG settingId);
void ClearMonitoredParents(bool log);
void RemoveMonitoredProcessesByProcess(HANDLE processId);
void RemoveMonitoredProcessesById(ULONG settingId);
void ClearMonitoredProcesses(bool log);
