#include "driver/process/monitored_process.h"

#include "driver/core/global_state.h"
#include "driver/log/log_channel.h"
#include "driver/util/debug_print.h"
#include "driver/util/list_removal.h"

namespace
{
using MonitoredList = LockedList<MonitoredProcessEntry>;

NTSTATUS Insert(MonitoredList& list, PEPROCESS process, HANDLE processId, ULONG kind, ULONG settingId)
{
    if (process == nullptr || processId == nullptr)
    {
        return STATUS_INVALID_PARAMETER;
    }
    auto entry = PoolPointer<MonitoredProcessEntry>::Allocate();
    if (!entry)
    {
        return STATUS_MEMORY_NOT_ALLOCATED;
    }
    entry->Process = process;
    entry->ProcessId = processId;
    entry->SettingId = settingId;
    entry->Kind = kind;
    WithLock(list.Lock, [&]() REQUIRES_LOCK(list.Lock) { list.Entries.Append(entry.Detach()); });
    return STATUS_SUCCESS;
}

bool Find(MonitoredList& list, HANDLE processId, ULONG kindMask, PULONG settingId)
{
    if (processId == nullptr)
    {
        return false;
    }
    bool found = false;
    WithLock(list.Lock,
        [&]() REQUIRES_LOCK(list.Lock)
        {
            MonitoredProcessEntry* entry = list.Entries.Find([=](MonitoredProcessEntry* candidate)
                { return candidate->ProcessId == processId && (candidate->Kind & kindMask) != 0; });
            found = entry != nullptr;
            if (found)
            {
                *settingId = entry->SettingId;
            }
        });
    return found;
}

PCWSTR DeletedParent(const MonitoredProcessEntry*)
{
    return OutcomeDeletedParent;
}

PCWSTR DeletedProcess(const MonitoredProcessEntry* entry)
{
    return (entry->Kind & MonitoredKindProcess) != 0 ? OutcomeDeletedProcess : OutcomeDeletedChild;
}

void RecordExit(const MonitoredProcessEntry* entry, PCWSTR outcome)
{
    WriteLogRecord(LevelTrace, PsGetCurrentProcessId(), nullptr, L"%s %s id = %d pid = %d", SourceProcessExits, outcome,
        entry->SettingId, ProcessIdNumber(entry->ProcessId));
}

void RecordRequest(const MonitoredProcessEntry* entry, PCWSTR operation, PCWSTR outcome)
{
    WriteLogRecord(LevelTrace, PsGetCurrentProcessId(), nullptr, L"%s %s %s id = %d pid = %d", SourceDeviceControl,
        operation, outcome, entry->SettingId, ProcessIdNumber(entry->ProcessId));
}

template <class Matches, class Record>
void Remove(MonitoredList& list, Matches&& matches, Record&& record)
{
    RemoveEntries(
        list, matches, [](MonitoredProcessEntry*) {}, record, [](MonitoredProcessEntry* entry) { FreePool(entry); });
}

typedef PCWSTR (*OutcomeOf)(const MonitoredProcessEntry* entry);

void RemoveByProcess(MonitoredList& list, HANDLE processId, OutcomeOf outcome)
{
    Remove(
        list, [=](MonitoredProcessEntry* entry) { return entry->ProcessId == processId; },
        [=](MonitoredProcessEntry* entry) { RecordExit(entry, outcome(entry)); });
}

void RemoveById(MonitoredList& list, ULONG settingId, OutcomeOf outcome)
{
    Remove(
        list, [=](MonitoredProcessEntry* entry) { return entry->SettingId == settingId; },
        [=](MonitoredProcessEntry* entry) { RecordRequest(entry, OperationDeleteProcess, outcome(entry)); });
}

void Clear(MonitoredList& list, bool log, OutcomeOf outcome)
{
    Remove(
        list, [](MonitoredProcessEntry*) { return true; },
        [=](MonitoredProcessEntry* entry)
        {
            if (log)
            {
                RecordRequest(entry, OperationStop, outcome(entry));
            }
        });
}

// A program's buffer may begin at any address.
void PutWord(PULONG place, ULONG word)
{
    RtlCopyMemory(reinterpret_cast<PUCHAR>(place), &word, sizeof(word));
}
}

NTSTATUS InsertMonitoredParent(PEPROCESS process, HANDLE processId, ULONG settingId)
{
    return Insert(Global.MonitoredParentProcessList, process, processId, MonitoredKindChild, settingId);
}

NTSTATUS InsertMonitoredProcess(PEPROCESS process, HANDLE processId, ULONG kind, ULONG settingId)
{
    return Insert(Global.MonitoredProcessList, process, processId, kind, settingId);
}

bool FindMonitoredParent(HANDLE processId, PULONG settingId)
{
    return Find(Global.MonitoredParentProcessList, processId, MonitoredKindAny, settingId);
}

bool FindMonitoredProcess(HANDLE processId, ULONG kindMask, PULONG settingId)
{
    return Find(Global.MonitoredProcessList, processId, kindMask, settingId);
}

bool IsMonitoredProcessListEmpty()
{
    bool empty = true;
    MonitoredList& list = Global.MonitoredProcessList;
    WithLock(list.Lock, [&]() REQUIRES_LOCK(list.Lock) { empty = list.Entries.IsEmpty(); });
    return empty;
}

NTSTATUS GetMonitoredPidList(PULONG buffer, ULONG bytes)
{
    if (buffer == nullptr)
    {
        return STATUS_INVALID_PARAMETER;
    }
    if (bytes < sizeof(ULONG))
    {
        return STATUS_BUFFER_TOO_SMALL;
    }
    PutWord(buffer, 0);
    NTSTATUS status = STATUS_SUCCESS;
    MonitoredList& list = Global.MonitoredProcessList;
    WithLock(list.Lock,
        [&]() REQUIRES_LOCK(list.Lock)
        {
            ULONG count = list.Entries.Count();
            PutWord(buffer, count);
            if (sizeof(ULONG) + sizeof(ULONG) * static_cast<SIZE_T>(count) > bytes)
            {
                status = STATUS_BUFFER_TOO_SMALL;
                return;
            }
            PULONG next = buffer + 1;
            list.Entries.ForEach(
                [&next](MonitoredProcessEntry* entry) { PutWord(next++, ProcessIdNumber(entry->ProcessId)); });
        });
    return status;
}

void RemoveMonitoredParentsByProcess(HANDLE processId)
{
    RemoveByProcess(Global.MonitoredParentProcessList, processId, DeletedParent);
}

void RemoveMonitoredParentsById(ULONG settingId)
{
    RemoveById(Global.MonitoredParentProcessList, settingId, DeletedParent);
}

void ClearMonitoredParents(bool log)
{
    Clear(Global.MonitoredParentProcessList, log, DeletedParent);
}

void RemoveMonitoredProcessesByProcess(HANDLE processId)
{
    RemoveByProcess(Global.MonitoredProcessList, processId, DeletedProcess);
}

void RemoveMonitoredProcessesById(ULONG settingId)
{
    RemoveById(Global.MonitoredProcessList, settingId, DeletedProcess);
}

void ClearMonitoredProcesses(bool log)
{
    Clear(Global.MonitoredProcessList, log, DeletedProcess);
}
