#include "driver/config/built_in_list.h"

#include "driver/util/debug_print.h"
#include "driver/util/name_matching.h"

namespace
{
ApplicationProcess* FindApplication(BuiltInList* list, HANDLE processId) REQUIRES_LOCK(list->Lock)
{
    return list->Processes.Find([processId](ApplicationProcess* entry) { return entry->ProcessId == processId; });
}

bool MatchesPattern(BuiltInList* list, PCUNICODE_STRING imagePath) REQUIRES_LOCK(list->Lock)
{
    return list->Settings.Find(
               [imagePath](SettingInfo* entry) { return MatchNamePattern(imagePath, &entry->Pattern); }) != nullptr;
}

// Once per process. *inserted tells whether it was new.
NTSTATUS AppendApplication(BuiltInList* list, HANDLE processId, bool* inserted) REQUIRES_LOCK(list->Lock)
{
    if (FindApplication(list, processId) != nullptr)
    {
        return STATUS_SUCCESS;
    }
    auto entry = PoolPointer<ApplicationProcess>::Allocate();
    if (!entry)
    {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    entry->ProcessId = processId;
    list->Processes.Append(entry.Detach());
    *inserted = true;
    return STATUS_SUCCESS;
}

// The prints name a path, so they are made without the lock, at PASSIVE_LEVEL.
NTSTATUS ReportInsertion(NTSTATUS status, bool inserted, PCSTR text, HANDLE processId, PCUNICODE_STRING imagePath)
{
    if (!NT_SUCCESS(status))
    {
        PrintWithDriverName("application process information allocate error\n");
    }
    else if (inserted)
    {
        PrintWithDriverName(text, ProcessIdNumber(processId), imagePath);
    }
    return status;
}
}

// Nobody else is there yet, so no lock is taken.
void InitializeBuiltInList(BuiltInList* list) NO_LOCK_ANALYSIS
{
    list->Lock.Initialize();
    list->Settings.Initialize();
    list->Processes.Initialize();
}

NTSTATUS AddBuiltInPattern(BuiltInList* list, const UNICODE_STRING& pattern, PCSTR text)
{
    auto entry = PoolPointer<SettingInfo>::Allocate();
    CountedString copy;
    if (!entry || !copy.Copy(pattern, pattern.Length))
    {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    entry->Pattern = copy.Detach();
    WithLock(list->Lock, [&]() REQUIRES_LOCK(list->Lock) { list->Settings.Append(entry.Detach()); });
    PrintWithDriverName(text, &pattern);
    return STATUS_SUCCESS;
}

void SetBuiltInFolder(BuiltInList* list, CountedString* folder)
{
    WithLock(list->Lock,
        [=]() REQUIRES_LOCK(list->Lock)
        {
            FreeString(&list->Folder);
            list->Folder = folder->Detach();
        });
}

void SetBuiltInSubFolder(BuiltInList* list, CountedString* subFolder)
{
    WithLock(list->Lock,
        [=]() REQUIRES_LOCK(list->Lock)
        {
            FreeString(&list->SubFolder);
            list->SubFolder = subFolder->Detach();
        });
}

bool IsInBuiltInFolder(BuiltInList* list, PCUNICODE_STRING path)
{
    bool inside = false;
    WithLock(list->Lock, [&, list]() REQUIRES_LOCK(list->Lock)
        { inside = MatchNamePattern(path, &list->Folder) || MatchNamePattern(path, &list->SubFolder); });
    return inside;
}

NTSTATUS InsertApplication(
    BuiltInList* list, HANDLE processId, PCUNICODE_STRING imagePath, const BuiltInListTexts& texts)
{
    NTSTATUS status = STATUS_SUCCESS;
    bool inserted = false;
    WithLock(list->Lock,
        [&, list]() REQUIRES_LOCK(list->Lock)
        {
            if (MatchesPattern(list, imagePath))
            {
                status = AppendApplication(list, processId, &inserted);
            }
        });
    return ReportInsertion(status, inserted, texts.Insert, processId, imagePath);
}

NTSTATUS ForceInsertApplication(
    BuiltInList* list, HANDLE processId, PCUNICODE_STRING imagePath, const BuiltInListTexts& texts)
{
    NTSTATUS status = STATUS_SUCCESS;
    bool inserted = false;
    WithLock(
        list->Lock, [&, list]() REQUIRES_LOCK(list->Lock) { status = AppendApplication(list, processId, &inserted); });
    return ReportInsertion(status, inserted, texts.ForcedInsert, processId, imagePath);
}

void RemoveApplication(BuiltInList* list, HANDLE processId, const BuiltInListTexts& texts)
{
    PoolPointer<ApplicationProcess> removed;
    WithLock(list->Lock,
        [&, list]() REQUIRES_LOCK(list->Lock)
        {
            removed = PoolPointer<ApplicationProcess>(FindApplication(list, processId));
            if (removed)
            {
                List<ApplicationProcess>::Unlink(removed.Get());
            }
        });
    if (removed)
    {
        PrintWithDriverName(texts.Remove, ProcessIdNumber(processId));
    }
}

NTSTATUS LookupApplication(BuiltInList* list, HANDLE processId)
{
    bool found = false;
    WithLock(
        list->Lock, [&, list]() REQUIRES_LOCK(list->Lock) { found = FindApplication(list, processId) != nullptr; });
    return found ? STATUS_SUCCESS : STATUS_NOT_FOUND;
}

void ClearBuiltInList(BuiltInList* list)
{
    WithLock(list->Lock,
        [list]() REQUIRES_LOCK(list->Lock)
        {
            list->Processes.ForEach(
                [](ApplicationProcess* entry)
                {
                    List<ApplicationProcess>::Unlink(entry);
                    FreePool(entry);
                });
            list->Settings.ForEach(
                [](SettingInfo* entry)
                {
                    List<SettingInfo>::Unlink(entry);
                    FreePool(entry->Pattern.Buffer);
                    FreePool(entry);
                });
            FreeString(&list->Folder);
            FreeString(&list->SubFolder);
        });
}
