#include "driver/core/unload.h"

#include "driver/config/browser_mode_list.h"
#include "driver/config/product_mode_list.h"
#include "driver/core/control_device.h"
#include "driver/core/global_state.h"
#include "driver/core/request_gate.h"
#include "driver/log/log_channel.h"
#include "driver/process/process_notify.h"
#include "driver/process/setting_id.h"
#include "driver/util/counted_string.h"

namespace
{
void RemoveProcessNotify()
{
    if (!IsProcessNotifyRegistered())
    {
        return;
    }
    NTSTATUS status = PsSetCreateProcessNotifyRoutineEx(OnProcessNotify, TRUE);
    if (NT_SUCCESS(status))
    {
        SetProcessNotifyRegistered(FALSE);
    }
    else
    {
        DbgPrint("Tarnveil - PsSetCreateProcessNotifyRoutineEx - %08x\n", status);
    }
}

void FreeConfiguration()
{
    FreeString(&Global.RegistryPath);
    FreeString(&Global.SandboxPath);
    FreeString(&Global.PrefixSandboxPath);
}

void EmptyLists()
{
    constexpr bool log = false;
    ClearSettings(ParentProcessNames, log);
    ClearSettings(ProcessNames, log);
    ClearSettings(ExclusionProcessNames, log);
    ClearMonitoredParents(log);
    ClearMonitoredProcesses(log);
    ClearFileProtections();
}
}

NTSTATUS NTAPI UnloadDriver(FLT_FILTER_UNLOAD_FLAGS)
{
    DbgPrint("Tarnveil Unload\n");
    RemoveProcessNotify();
    if (Global.Filter != nullptr)
    {
        FltUnregisterFilter(Global.Filter);
        Global.Filter = nullptr;
    }
    DeleteControlDevice();
    CloseRequestGate();
    FreeConfiguration();
    EmptyLists();
    CTFinalize(&Global.ProcessCache);
    BRPLClear();
    HBPLClear();
    IdManFinalize();
    FinalizeLogChannel();
    DbgPrint("Tarnveil Unload STATUS_SUCCESS\n");
    return STATUS_SUCCESS;
}
