// The one record of state that the whole driver shares, and the one place that knows every list of it. Cleared and
// initialised at load, before anything can call in. State that has to outlive the clearing, or that only one file
// touches, stands in that file with a comment that says so.
//
// Fields with a lock say so. The others are written at entry and unload, when nobody else is there, but for these:
// - The key fields are stored once, by the load or by the one request that claims them, and read without a lock.
// - EncryptionEnabled and BrowserModeActive are single words of which the last writer wins.
// The sandbox paths belong to the first kind: written at load and freed at unload. A create compares its path with them
// under CreateDecisionLock all the same; the parameter dump reads them without it.
#pragma once

#include "driver/config/built_in_list.h"
#include "driver/names/name_cache.h"
#include "driver/process/file_protection.h"
#include "driver/process/monitored_process.h"
#include "driver/process/setting_id.h"
#include "driver/process/setting_list.h"
#include "driver/util/list.h"

#include <fltkernel.h>

inline constexpr ULONG MaximumKeyBytes = 32;

// OsVersion of Windows 7.
inline constexpr ULONG OsVersionWindows7 = 0x06010000;

struct GlobalState
{
    // Null when it could not be created.
    PDEVICE_OBJECT ControlDevice;
    // Null before the filter is registered and after it is gone.
    PFLT_FILTER Filter;
    // The driver's own service key; capacity = length.
    UNICODE_STRING RegistryPath;
    // Held while a create compares its path with the sandbox folder.
    FastLock CreateDecisionLock;

    UCHAR CryptKey[MaximumKeyBytes];
    // 0 = no key. Stored after the key bytes and the mask, so whoever sees a length sees its key.
    ULONG KeyLength;
    UCHAR XorByte;
    // Set by the one request that may store the key when several try at once.
    UCHAR KeyClaimed;

    // The sandbox folder, and the same with a backslash appended blindly.
    UNICODE_STRING SandboxPath;
    UNICODE_STRING PrefixSandboxPath;

    BOOLEAN ProcessNotifyRegistered GUARDED_BY(NotifyLock);
    FastLock NotifyLock;

    LockedList<ProcessNameEntry> ParentProcessNameList;
    LockedList<ProcessNameEntry> ProcessNameList;
    LockedList<ProcessNameEntry> ExclusionProcessNameList;
    LockedList<MonitoredProcessEntry> MonitoredParentProcessList;
    LockedList<MonitoredProcessEntry> MonitoredProcessList;
    LockedList<FileProtection> FileProtections;
    IdentifierManager Identifiers;

    // The agent's last command, start or stop, for whoever looks with a debugger: nothing depends on it.
    BOOLEAN Started GUARDED_BY(StartedLock);
    FastLock StartedLock;

    // Long forms of short path names.
    CacheTable ProcessCache;
    // Major version in the top byte, minor in the next.
    ULONG OsVersion;
    // 1 = permitted opens in the sandbox get a cipher context.
    ULONG EncryptionEnabled;
    BuiltInList BrowserModeList;
    BuiltInList ProductModeList;
    // Set once the browser-mode list was built for an installer mode other than 1.
    BOOLEAN BrowserModeActive;
    // Gates the frequent traces. Nothing sets it; a debugger may.
    BOOLEAN VerboseTrace;
};

extern GlobalState Global;

// The first part of configuration loading: clears the record and brings up everything that needs no registry.
// IRQL PASSIVE_LEVEL.
void InitializeGlobalState();

// For requests. Takes StartedLock; IRQL up to APC_LEVEL.
void SetStarted(BOOLEAN started);
// For entry and unload. They take NotifyLock; IRQL up to APC_LEVEL.
BOOLEAN IsProcessNotifyRegistered();
void SetProcessNotifyRegistered(BOOLEAN registered);

// DbgPrint while VerboseTrace is set. IRQL as for DbgPrint: PASSIVE_LEVEL where a format prints wide text.
template <class... Arguments>
inline void TracePrint(PCSTR format, Arguments... arguments)
{
    if (Global.VerboseTrace)
    {
        DbgPrint(format, arguments...);
    }
}
