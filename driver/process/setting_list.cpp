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

// A path of the agent's. It is measured once, since it may be long.
struct AgentPath
{
    PCWSTR Text;
    SIZE_T Characters;
};

// Counts at most LongestPathCharacters.
AgentPath Measure(PCWSTR text)
{
    SIZE_T count = 0;
    while (count < LongestPathCharacters && text[count] != UNICODE_NULL)
    {
        ++count;
    }
    return {text, count};
}

// The path as an entry's name shows it: beyond the 16-bit length only the low bits of the length remain.
UNICODE_STRING NameView(const AgentPath& path)
{
    SIZE_T bytes = path.Characters * sizeof(WCHAR);
    UNICODE_STRING name;
    name.Length = static_cast<USHORT>(bytes);
    name.MaximumLength = static_cast<USHORT>(bytes + sizeof(WCHAR));
    name.Buffer = const_cast<PWSTR>(path.Text);
    return name;
}

// A new entry with its own copy of the path, not yet linked and without an id.
NTSTATUS MakeEntry(const AgentPath& path, ProcessNameEntry** made)
{
    auto entry = PoolPointer<ProcessNameEntry>::Allocate();
    if (!entry)
    {
        DbgPrint("Tarnveil - process name entry allocate error\n");
        return STATUS_MEMORY_NOT_ALLOCATED;
    }
    if (path.Characters == LongestPathCharacters)
    {
        DbgPrint("Tarnveil - RtlStringCbLengthW error %x\n", STATUS_INVALID_PARAMETER);
        return STATUS_INVALID_PARAMETER;
    }
    SIZE_T bytes = path.Characters * sizeof(WCHAR);
    auto text = PoolPointer<WCHAR>::Allocate(bytes + sizeof(WCHAR));
    if (!text)
    {
        DbgPrint("Tarnveil - current process list allocate error\n");
        return STATUS_MEMORY_NOT_ALLOCATED;
    }
    RtlCopyMemory(text.Get(), path.Text, bytes);
    entry->Name = NameView(path);
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

NTSTATUS AddOrRefresh(const ProcessNameSettingList& list, const AgentPath& path, bool isNew, PULONG id)
{
    ProcessNameEntry* entry = nullptr;
    NTSTATUS status = MakeEntry(path, &entry);
    if (!NT_SUCCESS(status))
    {
        return status;
    }
    // Once linked, the entry may be removed and freed by another request at any moment, so from there on the caller's
    // text stands in for it.
    UNICODE_STRING name = NameView(path);
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

void DeleteSettingsByName(const ProcessNameSettingList& list, const UNICODE_STRING& name)
{
    DeleteSettings(
        list, list.Label, true, [&name](ProcessNameEntry* entry) { return IsEqualNameNoCase(&entry->Name, &name); });
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
    AgentPath measured = Measure(path);
    UNICODE_STRING wanted = NameView(measured);
    bool isNew = !FindSetting(list, &wanted, id);
    if (!isNew)
    {
        WriteLogRecord(LevelTrace, PsGetCurrentProcessId(), nullptr, L"%s %s %s id = %d path = %ws",
            SourceDeviceControl, list.Label, OutcomeSettingExists, *id, path);
    }
    NTSTATUS status = AddOrRefresh(list, measured, isNew, id);
    if (!NT_SUCCESS(status))
    {
        DeleteSettingsByName(list, wanted);
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
    DeleteSettingsByName(list, NameView(Measure(path)));
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
