#include "driver/process/setting_list.h"

#include "driver/config/browser_mode_list.h"
#include "driver/core/global_state.h"
#include "driver/log/log_channel.h"
#include "driver/process/process_scan.h"
#include "driver/names/process_snapshot.h"
#include "driver/process/setting_id.h"
#include "driver/util/counted_string.h"
#include "driver/util/list_removal.h"
#include "driver/util/name_matching.h"

namespace
{
constexpr WCHAR SettingRecord[] = L"%s %s %s id = %d path = %wZ";
// Longer than any string can be; only a missing terminator gets there.
constexpr SIZE_T LongestPathCharacters = 0x7fffffff;

NTSTATUS RegisterRunningParents(const SYSTEM_PROCESS_INFORMATION* snapshot, PCUNICODE_STRING path, ULONG id)
{
    NTSTATUS status = RegistMonitoredParentProcess(snapshot, path, id);
    if (!NT_SUCCESS(status))
    {
        DbgPrint("Tarnveil - RegistMonitoredParentProcess error - %x\n", status);
        return status;
    }
    // Fails without a snapshot only, and then the first scan has failed already.
    return RegistMonitoredChildrenProcess(snapshot);
}

NTSTATUS RegisterRunningProcesses(const SYSTEM_PROCESS_INFORMATION* snapshot, PCUNICODE_STRING path, ULONG id)
{
    NTSTATUS status = RegistMonitoredProcess(snapshot, path, id);
    if (!NT_SUCCESS(status))
    {
        DbgPrint("Tarnveil - RegistMonitoredProcess error - %x\n", status);
        return status;
    }
    status = BRPLRegistProcess(snapshot, path);
    if (!NT_SUCCESS(status))
    {
        DbgPrint("Tarnveil - BRPLRegistProcess error - %x\n", status);
    }
    return status;
}

void FreeEntry(ProcessNameEntry* entry)
{
    FreePool(entry->Name.Buffer);
    FreePool(entry);
}

// At most LongestPathCharacters.
SIZE_T CountCharacters(PCWSTR path)
{
    SIZE_T count = 0;
    while (count < LongestPathCharacters && path[count] != UNICODE_NULL)
    {
        ++count;
    }
    return count;
}

// The path as an entry's name shows it: beyond the 16-bit length only the low bits of the length remain.
UNICODE_STRING NameView(PCWSTR path)
{
    SIZE_T bytes = CountCharacters(path) * sizeof(WCHAR);
    UNICODE_STRING name;
    name.Length = static_cast<USHORT>(bytes);
    name.MaximumLength = static_cast<USHORT>(bytes + sizeof(WCHAR));
    name.Buffer = const_cast<PWSTR>(path);
    return name;
}

NTSTATUS MeasurePath(PCWSTR path, SIZE_T* bytes)
{
    SIZE_T count = CountCharacters(path);
    if (count == LongestPathCharacters)
    {
        DbgPrint("Tarnveil - RtlStringCbLengthW error %x\n", STATUS_INVALID_PARAMETER);
        return STATUS_INVALID_PARAMETER;
    }
    *bytes = count * sizeof(WCHAR);
    return STATUS_SUCCESS;
}

// A new entry with its own copy of the path, not yet linked and without an id.
NTSTATUS MakeEntry(PCWSTR path, ProcessNameEntry** made)
{
    auto entry = PoolPointer<ProcessNameEntry>::Allocate();
    if (!entry)
    {
        DbgPrint("Tarnveil - process name entry allocate error\n");
        return STATUS_MEMORY_NOT_ALLOCATED;
    }
    SIZE_T bytes = 0;
    NTSTATUS status = MeasurePath(path, &bytes);
    if (!NT_SUCCESS(status))
    {
        return status;
    }
    auto text = PoolPointer<WCHAR>::Allocate(bytes + sizeof(WCHAR));
    if (!text)
    {
        DbgPrint("Tarnveil - current process list allocate error\n");
        return STATUS_MEMORY_NOT_ALLOCATED;
    }
    RtlCopyMemory(text.Get(), path, bytes);
    entry->Name = NameView(text.Get());
    entry->Name.Buffer = text.Detach();
    *made = entry.Detach();
    return STATUS_SUCCESS;
}

NTSTATUS RegisterRunning(const ProcessNameSettingList& list, PCUNICODE_STRING path, ULONG id)
{
    if (list.RegisterRunning == nullptr)
    {
        return STATUS_SUCCESS;
    }
    ProcessSnapshot snapshot;
    NTSTATUS status = snapshot.Take();
    if (!NT_SUCCESS(status))
    {
        DbgPrint("Tarnveil - QuerySystemInformation error %x\n", status);
        return status;
    }
    return list.RegisterRunning(snapshot.First(), path, id);
}

void LinkNewEntry(const ProcessNameSettingList& list, ProcessNameEntry* entry, PCUNICODE_STRING path, PULONG id)
{
    *id = IssueId();
    entry->SettingId = *id;
    WithLock(list.Settings.Lock, [&]() REQUIRES_LOCK(list.Settings.Lock) { list.Settings.Entries.Append(entry); });
    WriteLogRecord(LevelTrace, PsGetCurrentProcessId(), nullptr, SettingRecord, SourceDeviceControl, list.Label,
        OutcomeAddedSetting, *id, path);
}

NTSTATUS AddOrRefresh(const ProcessNameSettingList& list, PCWSTR path, bool isNew, PULONG id)
{
    ProcessNameEntry* entry = nullptr;
    NTSTATUS status = MakeEntry(path, &entry);
    if (!NT_SUCCESS(status))
    {
        return status;
    }
    // Once linked, the entry may be removed and freed by another request at any moment, so from there on the caller's
    // text stands in for it.
    UNICODE_STRING name = entry->Name;
    name.Buffer = const_cast<PWSTR>(path);
    if (isNew)
    {
        LinkNewEntry(list, entry, &name, id);
    }
    else
    {
        FreeEntry(entry);
    }
    return RegisterRunning(list, &name, *id);
}

void ReleaseEntryId(ProcessNameEntry* entry)
{
    ReleaseId(entry->SettingId);
}

template <class Matches>
void DeleteSettings(const ProcessNameSettingList& list, PCWSTR label, bool log, Matches&& matches)
{
    RemoveEntries(
        list.Settings, matches, ReleaseEntryId,
        [=](ProcessNameEntry* entry)
        {
            if (log)
            {
                WriteLogRecord(LevelTrace, PsGetCurrentProcessId(), nullptr, SettingRecord, SourceDeviceControl, label,
                    OutcomeDeletedSetting, entry->SettingId, &entry->Name);
            }
        },
        FreeEntry);
}
}

constinit const ProcessNameSettingList ParentProcessNames = {
    Global.ParentProcessNameList, OperationAddParent, RegisterRunningParents};
constinit const ProcessNameSettingList ProcessNames = {
    Global.ProcessNameList, OperationAddProcess, RegisterRunningProcesses};
constinit const ProcessNameSettingList ExclusionProcessNames = {
    Global.ExclusionProcessNameList, OperationAddExclusion, nullptr};

NTSTATUS AddSetting(const ProcessNameSettingList& list, PCWSTR path, PULONG id)
{
    if (path == nullptr)
    {
        return STATUS_INVALID_PARAMETER;
    }
    UNICODE_STRING wanted = NameView(path);
    bool isNew = !FindSetting(list, &wanted, id);
    if (!isNew)
    {
        WriteLogRecord(LevelTrace, PsGetCurrentProcessId(), nullptr, L"%s %s %s id = %d path = %ws",
            SourceDeviceControl, list.Label, OutcomeSettingExists, *id, path);
    }
    NTSTATUS status = AddOrRefresh(list, path, isNew, id);
    if (!NT_SUCCESS(status))
    {
        DeleteSettingsByPath(list, path);
    }
    return status;
}

bool FindSetting(const ProcessNameSettingList& list, PCUNICODE_STRING path, PULONG id)
{
    bool found = false;
    WithLock(list.Settings.Lock,
        [&]() REQUIRES_LOCK(list.Settings.Lock)
        {
            ProcessNameEntry* entry = list.Settings.Entries.Find(
                [path](ProcessNameEntry* candidate) { return IsEqualNameNoCase(&candidate->Name, path); });
            found = entry != nullptr;
            if (found)
            {
                *id = entry->SettingId;
            }
        });
    return found;
}

void DeleteSettingsByPath(const ProcessNameSettingList& list, PCWSTR path)
{
    if (path == nullptr)
    {
        return;
    }
    UNICODE_STRING wanted = NameView(path);
    DeleteSettings(list, list.Label, true,
        [&wanted](ProcessNameEntry* entry) { return IsEqualNameNoCase(&entry->Name, &wanted); });
}

void DeleteSettingsById(const ProcessNameSettingList& list, ULONG id)
{
    DeleteSettings(
        list, OperationDeleteProcess, true, [id](ProcessNameEntry* entry) { return entry->SettingId == id; });
}

void ClearSettings(const ProcessNameSettingList& list, bool log)
{
    DeleteSettings(list, OperationStop, log, [](ProcessNameEntry*) { return true; });
}
