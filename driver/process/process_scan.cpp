#include "driver/process/process_scan.h"

#include "driver/core/global_state.h"
#include "driver/log/log_channel.h"
#include "driver/names/dos_name.h"
#include "driver/names/running_images.h"
#include "driver/util/debug_print.h"
#include "driver/util/name_matching.h"

namespace
{
// The creator and 51 further ancestors.
constexpr ULONG LongestAncestry = 52;
constexpr char AlreadyAdded[] = "Tarnveil - %wZ (%d) has already been added.\n";
constexpr RunningImageTexts ScanTexts = {
    "Tarnveil - GetProcessImageNameFromProcessId Failed: 0x%08XL\n", "Tarnveil - KernelGetLongPathName failed %08x\n"};

// What tells the two scans by image path apart.
struct ImageScan
{
    PCSTR VisitTrace;
    PCSTR InsertTrace;
    PCWSTR Operation;
    PCWSTR Outcome;
    bool (*IsKnown)(HANDLE processId);
    NTSTATUS (*Insert)(PEPROCESS process, HANDLE processId, ULONG settingId);
};

bool IsMonitoredProcess(HANDLE processId)
{
    ULONG settingId = 0;
    return FindMonitoredProcess(processId, MonitoredKindAny, &settingId);
}

bool IsMonitoredAtAll(HANDLE processId)
{
    ULONG settingId = 0;
    return FindMonitoredParent(processId, &settingId) || IsMonitoredProcess(processId);
}

NTSTATUS InsertAsProcess(PEPROCESS process, HANDLE processId, ULONG settingId)
{
    return InsertMonitoredProcess(process, processId, MonitoredKindProcess, settingId);
}

constexpr ImageScan ParentScan = {"Tarnveil - RegistMonitoredParentProcess: %d - %wZ\n",
    "Tarnveil - insert parent %p %d %wZ\n", OperationAddParent, OutcomeAddedParent, IsMonitoredAtAll,
    InsertMonitoredParent};
// A monitored parent may be a process under the sandbox as well, so only the one list is asked.
constexpr ImageScan ProcessScan = {"Tarnveil - RegistMonitoredProcess: %d - %wZ\n",
    "Tarnveil - insert process %p %d %wZ\n", OperationAddProcess, OutcomeAddedProcess, IsMonitoredProcess,
    InsertAsProcess};

struct ScanTarget
{
    PCUNICODE_STRING SettingPath;
    UNICODE_STRING NtPath;
    ULONG SettingId;
};

void RecordRegistered(PCWSTR operation, PCWSTR outcome, ULONG settingId, const SYSTEM_PROCESS_INFORMATION* record)
{
    WriteLogRecord(LevelTrace, PsGetCurrentProcessId(), nullptr, L"%s %s %s id = %d ppid = %d pid = %d name = %wZ",
        SourceDeviceControl, operation, outcome, settingId, ProcessIdNumber(record->InheritedFromUniqueProcessId),
        ProcessIdNumber(record->UniqueProcessId), &record->ImageName);
}

void ScanProcess(const ImageScan& scan, const ScanTarget& target, const SYSTEM_PROCESS_INFORMATION* record)
{
    HANDLE processId = record->UniqueProcessId;
    TracePrint(scan.VisitTrace, ProcessIdNumber(processId), &record->ImageName);
    RunningImage image;
    if (!FindRunningImage(processId, ScanTexts, &image))
    {
        return;
    }
    if (scan.IsKnown(processId))
    {
        TracePrint(AlreadyAdded, &image.Path.Get(), ProcessIdNumber(processId));
        return;
    }
    if (!IsEqualNameNoCase(&image.Path.Get(), &target.NtPath))
    {
        return;
    }
    TracePrint(scan.InsertTrace, image.Process.Get(), ProcessIdNumber(processId), target.SettingPath);
    scan.Insert(image.Process.Get(), processId, target.SettingId);
    RecordRegistered(scan.Operation, scan.Outcome, target.SettingId, record);
}

NTSTATUS ScanByImage(
    const ImageScan& scan, const SYSTEM_PROCESS_INFORMATION* snapshot, PCUNICODE_STRING path, ULONG settingId)
{
    if (snapshot == nullptr || path == nullptr)
    {
        return STATUS_INVALID_PARAMETER;
    }
    CountedString ntPath;
    NTSTATUS status = GetNtNameFromDosName(path, &ntPath);
    if (!NT_SUCCESS(status))
    {
        return status;
    }
    ScanTarget target = {path, ntPath.Get(), settingId};
    for (auto record = snapshot; record != nullptr; record = ProcessSnapshot::Next(record))
    {
        ScanProcess(scan, target, record);
    }
    return STATUS_SUCCESS;
}

void RegisterChild(const SYSTEM_PROCESS_INFORMATION* record, ULONG settingId)
{
    TracePrint("Tarnveil - %wZ (%d) is child process\n", &record->ImageName, ProcessIdNumber(record->UniqueProcessId));
    ProcessReference process;
    if (!NT_SUCCESS(PsLookupProcessByProcessId(record->UniqueProcessId, process.Address())))
    {
        return;
    }
    InsertMonitoredProcess(process.Get(), record->UniqueProcessId, MonitoredKindChild, settingId);
    RecordRegistered(OperationAddParent, OutcomeAddedChild, settingId, record);
}

void RegisterIfDescendant(const SYSTEM_PROCESS_INFORMATION* snapshot, const SYSTEM_PROCESS_INFORMATION* record)
{
    auto ancestor = FindCreatorRecord(snapshot, record);
    for (ULONG generation = 0; ancestor != nullptr && generation < LongestAncestry; ++generation)
    {
        ULONG settingId = 0;
        if (FindMonitoredParent(ancestor->UniqueProcessId, &settingId))
        {
            RegisterChild(record, settingId);
            return;
        }
        ancestor = FindCreatorRecord(snapshot, ancestor);
    }
}
}

NTSTATUS RegistMonitoredParentProcess(
    const SYSTEM_PROCESS_INFORMATION* snapshot, PCUNICODE_STRING path, ULONG settingId)
{
    return ScanByImage(ParentScan, snapshot, path, settingId);
}

NTSTATUS RegistMonitoredProcess(const SYSTEM_PROCESS_INFORMATION* snapshot, PCUNICODE_STRING path, ULONG settingId)
{
    return ScanByImage(ProcessScan, snapshot, path, settingId);
}

NTSTATUS RegistMonitoredChildrenProcess(const SYSTEM_PROCESS_INFORMATION* snapshot)
{
    if (snapshot == nullptr)
    {
        return STATUS_INVALID_PARAMETER;
    }
    for (auto record = snapshot; record != nullptr; record = ProcessSnapshot::Next(record))
    {
        TracePrint("Tarnveil - RegistMonitoredChildrenProcess: %d - %wZ\n", ProcessIdNumber(record->UniqueProcessId),
            &record->ImageName);
        if (IsMonitoredAtAll(record->UniqueProcessId))
        {
            TracePrint(AlreadyAdded, &record->ImageName, ProcessIdNumber(record->UniqueProcessId));
            continue;
        }
        RegisterIfDescendant(snapshot, record);
    }
    return STATUS_SUCCESS;
}

const SYSTEM_PROCESS_INFORMATION* FindCreatorRecord(
    const SYSTEM_PROCESS_INFORMATION* snapshot, const SYSTEM_PROCESS_INFORMATION* record)
{
    return ProcessSnapshot::FindRecord(snapshot,
        [record](const SYSTEM_PROCESS_INFORMATION* candidate)
        {
            return candidate->UniqueProcessId == record->InheritedFromUniqueProcessId &&
                   candidate->CreateTime.QuadPart <= record->CreateTime.QuadPart;
        });
}
