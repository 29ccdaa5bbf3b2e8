// A list of program name patterns that is fixed in the driver, and of the running processes that match them. The
// browser-mode and the product-mode list are of this kind. IRQL PASSIVE_LEVEL throughout.
#pragma once

#include "driver/util/counted_string.h"
#include "driver/util/list.h"

// A pattern for image paths.
struct SettingInfo
{
    LIST_ENTRY Links;
    // The entry owns the text.
    UNICODE_STRING Pattern;
};

struct ApplicationProcess
{
    LIST_ENTRY Links;
    HANDLE ProcessId;
};

struct BuiltInList
{
    // Set by the one caller that builds the list while it does.
    UCHAR BuildClaimed;
    // Never cleared: a list is built once per load.
    UCHAR Built;
    FastLock Lock;
    List<SettingInfo> Settings GUARDED_BY(Lock);
    List<ApplicationProcess> Processes GUARDED_BY(Lock);
    // A folder that the create decision asks about, and everything below it; without a buffer when not known.
    UNICODE_STRING Folder GUARDED_BY(Lock);
    UNICODE_STRING SubFolder GUARDED_BY(Lock);
};

// How one of the lists reports its processes.
struct BuiltInListTexts
{
    PCSTR Insert;
    PCSTR ForcedInsert;
    PCSTR Remove;
};

// At load, before anybody can ask.
void InitializeBuiltInList(BuiltInList* list);

// Appends a pattern, also one that is there already, and prints it. STATUS_INSUFFICIENT_RESOURCES.
NTSTATUS AddBuiltInPattern(BuiltInList* list, const UNICODE_STRING& pattern, PCSTR text);
// The same for a fixed set of them; ends at the first failure.
template <SIZE_T Count>
inline NTSTATUS AddBuiltInPatterns(BuiltInList* list, const PCWSTR (&patterns)[Count], PCSTR text)
{
    NTSTATUS status = STATUS_SUCCESS;
    for (SIZE_T i = 0; i < Count && NT_SUCCESS(status); ++i)
    {
        status = AddBuiltInPattern(list, CountedView(patterns[i]), text);
    }
    return status;
}
// Replace the folder, or the pattern for everything below it; take the buffer.
void SetBuiltInFolder(BuiltInList* list, CountedString* folder);
void SetBuiltInSubFolder(BuiltInList* list, CountedString* subFolder);
// Whether a path is the folder or below it.
bool IsInBuiltInFolder(BuiltInList* list, PCUNICODE_STRING path);

// Remembers a process whose image path matches a pattern, or, forced, any process; once.
// STATUS_INSUFFICIENT_RESOURCES.
NTSTATUS InsertApplication(
    BuiltInList* list, HANDLE processId, PCUNICODE_STRING imagePath, const BuiltInListTexts& texts);
NTSTATUS ForceInsertApplication(
    BuiltInList* list, HANDLE processId, PCUNICODE_STRING imagePath, const BuiltInListTexts& texts);
void RemoveApplication(BuiltInList* list, HANDLE processId, const BuiltInListTexts& texts);
// STATUS_SUCCESS or STATUS_NOT_FOUND.
NTSTATUS LookupApplication(BuiltInList* list, HANDLE processId);
// At unload: patterns, processes and folders.
void ClearBuiltInList(BuiltInList* list);
