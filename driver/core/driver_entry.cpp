#include "driver/config/registry_configuration.h"
#include "driver/core/control_device.h"
#include "driver/core/filter_registration.h"
#include "driver/core/global_state.h"
#include "driver/core/unload.h"
#include "driver/filter/block_cipher.h"
#include "driver/process/process_notify.h"

namespace
{
NTSTATUS StartFiltering()
{
    NTSTATUS status = FltStartFiltering(Global.Filter);
    if (!NT_SUCCESS(status))
    {
        DbgPrint("FltStartFiltering fail %x\n", status);
        FltUnregisterFilter(Global.Filter);
        // Unload must not unregister it a second time.
        Global.Filter = nullptr;
    }
    return status;
}

NTSTATUS RegisterProcessNotify()
{
    NTSTATUS status = PsSetCreateProcessNotifyRoutineEx(OnProcessNotify, FALSE);
    if (NT_SUCCESS(status))
    {
        SetProcessNotifyRegistered(TRUE);
    }
    else
    {
        DbgPrint("Tarnveil - PsSetCreateProcessNotifyRoutineEx - %08x\n", status);
    }
    return status;
}
}

// A failed start of filtering does not end the load here. So a successful registration of the process routine makes the
// load succeed without an active filter, and a failed registration fails it although filtering runs.
extern "C" NTSTATUS NTAPI DriverEntry(PDRIVER_OBJECT driverObject, PUNICODE_STRING registryPath)
{
    DbgPrint("Tarnveil Driver Entry %wZ\n", registryPath);
    InitializePoolPolicy();
    SelectCipherFamily(ProcessorHasAesInstructions() ? CipherFamily::Instructions : CipherFamily::Portable);
    LoadConfiguration(registryPath);

    CreateControlDevice(driverObject);

    FLT_REGISTRATION registration;
    BuildFilterRegistration(&registration, UnloadDriver);
    NTSTATUS status = FltRegisterFilter(driverObject, &registration, &Global.Filter);
    if (!NT_SUCCESS(status))
    {
        DbgPrint("FltRegisterFilter fail %x\n", status);
        return status;
    }
    status = StartFiltering();
    if (!IsProcessNotifyRegistered())
    {
        status = RegisterProcessNotify();
    }
    DbgPrint("Tarnveil DriverEntry return %x\n", status);
    return status;
}
