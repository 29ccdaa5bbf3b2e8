// The agent's three lists of executables, by full DOS path: parents whose descendants are sandboxed, programs that
// are sandboxed themselves, and programs that never are. Names are compared whole and without regard to case; a
// wildcard character in a setting stands for itself.
//
// Each list has its own lock; the identifier manager's is taken inside it. IRQL PASSIVE_LEVEL throughout.
#pragma once

#include "driver/util/list.h"

// One setting. The entry owns its id and the text, which is terminated.
struct ProcessNameEntry
{
    LIST_ENTRY Links;
    UNICODE_STRING Name;
    ULONG SettingId;
};

// What tells the three lists apart.
struct ProcessNameSettingList
{
    LockedList<ProcessNameEntry>& Settings;
    // The log label of the request that fills the list.
    PCWSTR Label;
    // Puts running processes of that image under watch; null where a setting only concerns processes to come.
    NTSTATUS (*RegisterRunning)(const SYSTEM_PROCESS_INFORMATION* snapshot, PCUNICODE_STRING path, ULONG id);
};

extern const ProcessNameSettingList ParentProcessNames;
extern const ProcessNameSettingList ProcessNames;
extern const ProcessNameSettingList ExclusionProcessNames;

// Adds a setting unless the path has one, and registers running processes in either case. *id receives the setting's
// id as soon as it is known and keeps its value otherwise. A failed add removes every setting of the path, also one
// that was there before: the agent is expected to add it again. `path` is terminated and may be null.
// STATUS_INVALID_PARAMETER (null or endless path), STATUS_MEMORY_NOT_ALLOCATED, or the failure to register.
NTSTATUS AddSetting(const ProcessNameSettingList& list, PCWSTR path, PULONG id);
// True, with its id, when the list holds the path. False for null.
bool FindSetting(const ProcessNameSettingList& list, PCUNICODE_STRING path, PULONG id);
// Removes the settings of that path, or of that id, with a log record each. A null path removes nothing.
void DeleteSettingsByPath(const ProcessNameSettingList& list, PCWSTR path);
void DeleteSettingsById(const ProcessNameSettingList& list, ULONG id);
// Removes all; the records are written when `log` is set.
void ClearSettings(const ProcessNameSettingList& list, bool log);
