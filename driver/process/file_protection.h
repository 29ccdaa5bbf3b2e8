// Files that only the processes that the agent named may open. A protected path stays protected for the whole load,
// also when nobody is allowed any more; the paths, without their processes, are kept in the registry.
//
// One lock guards the list and the processes of every entry. Inside it only the identifier manager's is taken.
// IRQL PASSIVE_LEVEL throughout.
#pragma once

#include "driver/util/list.h"

inline constexpr WCHAR ProtectionFilesValueName[] = L"ProtectionFiles";

struct AllowedProcessEntry
{
    LIST_ENTRY Links;
    // Owned by the entry.
    ULONG SettingId;
    HANDLE ProcessId;
};

// Entries are never removed before unload, so a pointer to one stays good without the lock.
struct FileProtection
{
    LIST_ENTRY Links;
    // NT form; may hold wildcard characters. Never changed, so read without the lock. The entry owns the text.
    UNICODE_STRING Path;
    // Guarded by the lock of the list that holds the entry.
    List<AllowedProcessEntry> AllowedProcesses;
};

// Allows a process to open a file (a terminated drive-letter path), which is protected from then on. *id receives the
// setting's id, also that of a process that was allowed before. STATUS_INVALID_PARAMETER for a null path,
// STATUS_MEMORY_NOT_ALLOCATED or STATUS_INSUFFICIENT_RESOURCES without memory, else the failure to turn the path into
// its NT form. A path whose process found no memory stays protected. A failure to store the paths is printed and does
// not fail the request.
NTSTATUS AddFileProtectionSetting(HANDLE processId, PCWSTR path, PULONG id);

// Takes the allowed process with that setting id out of its file, with a log record; an id that none carries changes
// nothing.
void DeleteFileProtectionById(ULONG id);
// Takes a process that exits out of every file that it was allowed to open, with a log record for each.
void DeleteFileProtectionsOfProcess(HANDLE processId);

// Whether any protected path, as a wildcard pattern, covers the name (*isProtected), and whether none of those allows
// the process (*isDenied). STATUS_INVALID_PARAMETER for a null output.
NTSTATUS CheckFileProtection(HANDLE processId, PCUNICODE_STRING name, PBOOLEAN isProtected, PBOOLEAN isDenied);

// The entry of exactly that path, in any case, or STATUS_NOT_FOUND.
NTSTATUS FindFileProtection(PCUNICODE_STRING path, FileProtection** protection);
// Appends a path without looking for it first. STATUS_INSUFFICIENT_RESOURCES.
NTSTATUS AddNewFileProtection(PCUNICODE_STRING path);
// STATUS_NOT_FOUND when the process is not allowed. `id` may be null.
NTSTATUS FindAllowedProcess(FileProtection* protection, HANDLE processId, PULONG id);
// The entry at an index of the list, or STATUS_NOT_FOUND behind the last one.
NTSTATUS GetFileProtectionAt(ULONG index, FileProtection** protection);

// At unload: frees every entry with its processes, whose ids are released.
void ClearFileProtections();

// Writes every protected path to the service key. STATUS_INSUFFICIENT_RESOURCES without memory, else the failure to
// open the key or to set the value; each is printed.
NTSTATUS SaveProtectionFiles();
