#include "driver/core/global_state.h"

#include "driver/config/browser_mode_list.h"
#include "driver/core/system_routines.h"
#include "driver/log/log_channel.h"

GlobalState Global;

namespace
{
void InitializeLocks()
{
    FastLock* const locks[] = {&Global.CreateDecisionLock, &Global.ParentProcessNameList.Lock,
        &Global.ProcessNameList.Lock, &Global.ExclusionProcessNameList.Lock, &Global.MonitoredParentProcessList.Lock,
        &Global.MonitoredProcessList.Lock, &Global.NotifyLock, &Global.StartedLock, &Global.FileProtections.Lock};
    for (FastLock* lock : locks)
    {
        lock->Initialize();
    }
}

// Nobody else is there yet, so no lock is taken.
void InitializeLists() NO_LOCK_ANALYSIS
{
    Global.ParentProcessNameList.Entries.Initialize();
    Global.ProcessNameList.Entries.Initialize();
    Global.ExclusionProcessNameList.Entries.Initialize();
    Global.MonitoredParentProcessList.Entries.Initialize();
    Global.MonitoredProcessList.Entries.Initialize();
    Global.FileProtections.Entries.Initialize();
}

void RecordSystemVersion()
{
    RTL_OSVERSIONINFOW version = {};
    version.dwOSVersionInfoSize = sizeof(version);
    NTSTATUS status = RtlGetVersion(&version);
    if (!NT_SUCCESS(status))
    {
        DbgPrint("Tarnveil - RtlGetVersion failed: %08x\n", status);
        return;
    }
    Global.OsVersion = (version.dwMajorVersion & 0xff) << 24 | (version.dwMinorVersion & 0xff) << 16;
    DbgPrint("Tarnveil - OS Version: 0x%08x\n", Global.OsVersion);
}
}

void InitializeGlobalState()
{
    RtlZeroMemory(static_cast<void*>(&Global), sizeof(Global));
    InitializeLocks();
    InitializeLists();
    InitializeBuiltInList(&Global.BrowserModeList);
    InitializeBuiltInList(&Global.ProductModeList);
    Global.EncryptionEnabled = 1;
    InitializeSystemRoutines();
    InitializeLogChannel();
    CTInitialize(&Global.ProcessCache);
    BRPLBuild();
    IdManInitialize();
    RecordSystemVersion();
}

void SetStarted(BOOLEAN started)
{
    WithLock(Global.StartedLock, [started]() REQUIRES_LOCK(Global.StartedLock) { Global.Started = started; });
}

BOOLEAN IsProcessNotifyRegistered()
{
    BOOLEAN registered = FALSE;
    WithLock(Global.NotifyLock,
        [&registered]() REQUIRES_LOCK(Global.NotifyLock) { registered = Global.ProcessNotifyRegistered; });
    return registered;
}

void SetProcessNotifyRegistered(BOOLEAN registered)
{
    WithLock(Global.NotifyLock,
        [registered]() REQUIRES_LOCK(Global.NotifyLock) { Global.ProcessNotifyRegistered = registered; });
}
