#include "driver/process/file_protection.h"

#include "driver/core/global_state.h"
#include "driver/log/log_channel.h"
#include "driver/names/dos_name.h"
#include "driver/process/setting_id.h"
#include "driver/util/counted_string.h"
#include "driver/util/debug_print.h"
#include "driver/util/name_matching.h"

namespace
{
LockedList<FileProtection>& Protections = Global.FileProtections;

// *isNew tells whether the path was not there before.
NTSTATUS FindOrAdd(PCUNICODE_STRING path, FileProtection** protection, bool* isNew)
{
    *isNew = false;
    if (NT_SUCCESS(FindFileProtection(path, protection)))
    {
        return STATUS_SUCCESS;
    }
    NTSTATUS status = AddNewFileProtection(path);
    if (!NT_SUCCESS(status))
    {
        return status;
    }
    *isNew = true;
    return FindFileProtection(path, protection);
}

NTSTATUS AllowProcess(FileProtection* protection, HANDLE processId, PULONG id)
{
    auto entry = PoolPointer<AllowedProcessEntry>::Allocate();
    if (!entry)
    {
        DbgPrint("Tarnveil - allowed process entry allocate error\n");
        return STATUS_MEMORY_NOT_ALLOCATED;
    }
    *id = IssueId();
    entry->SettingId = *id;
    entry->ProcessId = processId;
    WithLock(Protections.Lock,
        [&]() REQUIRES_LOCK(Protections.Lock) { protection->AllowedProcesses.Append(entry.Detach()); });
    WriteLogRecord(LevelTrace, PsGetCurrentProcessId(), nullptr, L"%s %s %s id = %d pid = %d path = %wZ",
        SourceDeviceControl, OperationAddProtection, OutcomeAddedSetting, *id, ProcessIdNumber(processId),
        &protection->Path);
    return STATUS_SUCCESS;
}

// An allowed process that was unlinked, and the file that it was allowed to open.
struct RemovedProcess
{
    PoolPointer<AllowedProcessEntry> Entry;
    PCUNICODE_STRING Path;
};

// Unlinks the first match in list order; its id is released. False when there is none.
template <class Matches>
bool TakeAllowedProcess(Matches&& matches, RemovedProcess* removed)
{
    bool found = false;
    WithLock(Protections.Lock,
        [&]() REQUIRES_LOCK(Protections.Lock)
        {
            FileProtection* owner = Protections.Entries.Find(
                [&](FileProtection* protection)
                {
                    AllowedProcessEntry* entry = protection->AllowedProcesses.Find(matches);
                    if (entry != nullptr)
                    {
                        removed->Entry = PoolPointer<AllowedProcessEntry>(entry);
                    }
                    return entry != nullptr;
                });
            if (owner == nullptr)
            {
                return;
            }
            found = true;
            removed->Path = &owner->Path;
            List<AllowedProcessEntry>::Unlink(removed->Entry.Get());
            ReleaseId(removed->Entry->SettingId);
        });
    return found;
}

void ReportExit(const RemovedProcess& removed)
{
    ULONG id = removed.Entry->SettingId;
    ULONG processId = ProcessIdNumber(removed.Entry->ProcessId);
    TracePrint("Tarnveil - %ws %ws id = %d pid = %d path = %wZ\n", SourceProcessExits, OutcomeDeletedSetting, id,
        processId, removed.Path);
    WriteLogRecord(LevelTrace, PsGetCurrentProcessId(), nullptr, L"%s %s id = %d pid = %d path = %wZ",
        SourceProcessExits, OutcomeDeletedSetting, id, processId, removed.Path);
}

void ReportRequest(const RemovedProcess& removed)
{
    ULONG id = removed.Entry->SettingId;
    ULONG processId = ProcessIdNumber(removed.Entry->ProcessId);
    TracePrint("Tarnveil - %ws %ws %ws id = %d pid = %d path = %wZ\n", SourceDeviceControl, OperationDeleteProtection,
        OutcomeDeletedSetting, id, processId, removed.Path);
    WriteLogRecord(LevelTrace, PsGetCurrentProcessId(), nullptr, L"%s %s %s id = %d pid = %d path = %wZ",
        SourceDeviceControl, OperationDeleteProtection, OutcomeDeletedSetting, id, processId, removed.Path);
}

void FreeProtection(FileProtection* protection)
{
    TracePrint("Tarnveil - Remove FindFileProtection = %wZ\n", &protection->Path);
    protection->AllowedProcesses.ForEach(
        [](AllowedProcessEntry* entry)
        {
            List<AllowedProcessEntry>::Unlink(entry);
            TracePrint("Tarnveil -        SettingId = %d ProcessId = %d\n", entry->SettingId,
                ProcessIdNumber(entry->ProcessId));
            ReleaseId(entry->SettingId);
            FreePool(entry);
        });
    List<FileProtection>::Unlink(protection);
    FreePool(protection->Path.Buffer);
    FreePool(protection);
}
}

NTSTATUS AddFileProtectionSetting(HANDLE processId, PCWSTR path, PULONG id)
{
    if (path == nullptr)
    {
        return STATUS_INVALID_PARAMETER;
    }
    UNICODE_STRING dosPath = CountedView(path);
    CountedString ntPath;
    NTSTATUS status = GetNtNameFromDosName(&dosPath, &ntPath);
    if (!NT_SUCCESS(status))
    {
        return status;
    }
    FileProtection* protection = nullptr;
    bool isNew = false;
    status = FindOrAdd(&ntPath.Get(), &protection, &isNew);
    if (!NT_SUCCESS(status))
    {
        return status;
    }
    if (NT_SUCCESS(FindAllowedProcess(protection, processId, id)))
    {
        WriteLogRecord(LevelTrace, PsGetCurrentProcessId(), nullptr, L"%s %s %s id = %d pid = %d path = %ws",
            SourceDeviceControl, OperationAddProtection, OutcomeSettingExists, *id, ProcessIdNumber(processId), path);
        return STATUS_SUCCESS;
    }
    status = AllowProcess(protection, processId, id);
    if (NT_SUCCESS(status) && isNew)
    {
        SaveProtectionFiles();
    }
    return status;
}

void DeleteFileProtectionById(ULONG id)
{
    RemovedProcess removed = {};
    // An id belongs to one entry. Looking again would find whoever has been given the number since.
    if (TakeAllowedProcess([id](AllowedProcessEntry* entry) { return entry->SettingId == id; }, &removed))
    {
        ReportRequest(removed);
    }
}

void DeleteFileProtectionsOfProcess(HANDLE processId)
{
    RemovedProcess removed = {};
    while (
        TakeAllowedProcess([processId](AllowedProcessEntry* entry) { return entry->ProcessId == processId; }, &removed))
    {
        ReportExit(removed);
    }
}

NTSTATUS CheckFileProtection(HANDLE processId, PCUNICODE_STRING name, PBOOLEAN isProtected, PBOOLEAN isDenied)
{
    if (isProtected == nullptr || isDenied == nullptr)
    {
        return STATUS_INVALID_PARAMETER;
    }
    *isProtected = FALSE;
    *isDenied = FALSE;
    WithLock(Protections.Lock,
        [&]() REQUIRES_LOCK(Protections.Lock)
        {
            // Ends at the first covering pattern that allows the process.
            Protections.Entries.Find(
                [=](FileProtection* protection)
                {
                    if (!MatchNamePattern(name, &protection->Path))
                    {
                        return false;
                    }
                    *isProtected = TRUE;
                    *isDenied = protection->AllowedProcesses.Find([processId](AllowedProcessEntry* entry)
                                    { return entry->ProcessId == processId; }) == nullptr;
                    return *isDenied == FALSE;
                });
        });
    return STATUS_SUCCESS;
}

NTSTATUS FindFileProtection(PCUNICODE_STRING path, FileProtection** protection)
{
    FileProtection* found = nullptr;
    WithLock(Protections.Lock,
        [&]() REQUIRES_LOCK(Protections.Lock)
        {
            TracePrint("Tarnveil - FindFileProtection File      = %wZ Entry = %p\n", path, protection);
            found = Protections.Entries.Find(
                [path](FileProtection* candidate) { return IsEqualNameNoCase(&candidate->Path, path); });
            if (found != nullptr)
            {
                TracePrint("Tarnveil -     Found FileProtection     = %wZ Entry = %p\n", path, found);
            }
            else
            {
                TracePrint("Tarnveil -     NOT Found FileProtection = %wZ Entry = %p\n", path, found);
            }
        });
    if (found == nullptr)
    {
        return STATUS_NOT_FOUND;
    }
    *protection = found;
    return STATUS_SUCCESS;
}

NTSTATUS AddNewFileProtection(PCUNICODE_STRING path)
{
    TracePrint("Tarnveil - AddNewFileProtection File    = %wZ\n", path);
    auto protection = PoolPointer<FileProtection>::Allocate();
    if (!protection)
    {
        DbgPrint("Tarnveil - file protection entry allocate error\n");
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    CountedString copy;
    if (!copy.Copy(*path, path->MaximumLength))
    {
        DbgPrint("Tarnveil - file path buffer allocate error\n");
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    protection->Path = copy.Detach();
    protection->AllowedProcesses.Initialize();
    WithLock(
        Protections.Lock, [&]() REQUIRES_LOCK(Protections.Lock) { Protections.Entries.Append(protection.Detach()); });
    return STATUS_SUCCESS;
}

NTSTATUS FindAllowedProcess(FileProtection* protection, HANDLE processId, PULONG id)
{
    NTSTATUS status = STATUS_NOT_FOUND;
    WithLock(Protections.Lock,
        [&]() REQUIRES_LOCK(Protections.Lock)
        {
            AllowedProcessEntry* entry = protection->AllowedProcesses.Find(
                [processId](AllowedProcessEntry* candidate) { return candidate->ProcessId == processId; });
            if (entry == nullptr)
            {
                return;
            }
            status = STATUS_SUCCESS;
            if (id != nullptr)
            {
                *id = entry->SettingId;
            }
        });
    return status;
}

NTSTATUS GetFileProtectionAt(ULONG index, FileProtection** protection)
{
    NTSTATUS status = STATUS_NOT_FOUND;
    WithLock(Protections.Lock,
        [&]() REQUIRES_LOCK(Protections.Lock)
        {
            ULONG position = 0;
            FileProtection* found = Protections.Entries.Find([&](FileProtection*) { return position++ == index; });
            if (found != nullptr)
            {
                *protection = found;
                status = STATUS_SUCCESS;
            }
        });
    return status;
}

void ClearFileProtections()
{
    WithLock(Protections.Lock, []() REQUIRES_LOCK(Protections.Lock) { Protections.Entries.ForEach(FreeProtection); });
}
