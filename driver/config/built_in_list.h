// A list of program name patterns that is fixed in the driver, and of the running processes that match them. The
// browser-mode and the product-mode list are of this kind. Every routine takes the list's lock for itself, so none may
// be called with it held. IRQL PASSIVE_LEVEL throughout.
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
    // Patterns for a folder that the create decision asks about and for everything below it; without a buffer when not
    // known, which no path matches.
    UNICODE_STRING Folder GUARDED_BY(Lock);
    UNICODE_STRING SubFolder GUARDED_BY(Lock);
};

// How one of the lists reports its processes: formats for an id and, but for the last, an image path.
struct BuiltInListTexts
{
    PCSTR Insert;
    PCSTR ForcedInsert;
    PCSTR Remove;
};

// At load, before anybody can ask.
void InitializeBuiltInList(BuiltInList* list);

// Appends a copy of a pattern, also of one that is there already, and prints it with `text`.
// STATUS_INSUFFICIENT_RESOURCES.
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
// Replace the folder's pattern, or the one for everything below it; they take the buffer.
void SetBuiltInFolder(BuiltInList* list, CountedString* folder);
void SetBuiltInSubFolder(BuiltInList* list, CountedString* subFolder);
// Whether a path matches either pattern. False without memory.
bool IsInBuiltInFolder(BuiltInList* list, PCUNICODE_STRING path);

// Remembers a process whose image path matches a pattern, or, forced, any process; once.
// STATUS_INSUFFICIENT_RESOURCES.
NTSTATUS InsertApplication(
    BuiltInList* list, HANDLE processId, PCUNICODE_STRING imagePath, const BuiltInListTexts& texts);
NTSTATUS ForceInsertApplication(
    BuiltInList* list, HANDLE processId, PCUNICODE_STRING imagePath, const BuiltInListTexts& texts);
// Forgets a process; one that is not there is no failure.
void RemoveApplication(BuiltInList* list, HANDLE processId, const BuiltInListTexts& texts);
// Whether a process is remembered: STATUS_SUCCESS or STATUS_NOT_FOUND.
NTSTATUS LookupApplication(BuiltInList* list, HANDLE processId);
// At unload: patterns, processes and folders.
void ClearBuiltInList(BuiltInList* list);
