// The one record of state that the whole driver shares. Cleared and initialised at load, before anything can call in.
//
// Fields with a lock say so. The key fields, EncryptionEnabled and the paths are read without one: the paths are
// written only at load, the key only once, EncryptionEnabled is a word of which the last writer wins.
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
    ULONG PoolTag;
    PDRIVER_OBJECT DriverObject;
    // Null when it could not be created.
    PDEVICE_OBJECT ControlDevice;
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

    // A record of the agent's last command; nothing reads it.
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

// For requests: set and cleared under its own lock.
void SetStarted(BOOLEAN started);
// For entry and unload.
BOOLEAN IsProcessNotifyRegistered();
void SetProcessNotifyRegistered(BOOLEAN registered);

// DbgPrint while VerboseTrace is set.
template <class... Arguments>
inline void TracePrint(PCSTR format, Arguments... arguments)
{
    if (Global.VerboseTrace)
    {
        DbgPrint(format, arguments...);
    }
}
