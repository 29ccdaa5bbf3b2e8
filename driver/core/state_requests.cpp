// Requests that set the key and the switches.

#include "driver/config/browser_mode_list.h"
#include "driver/core/global_state.h"
#include "driver/core/request.h"
#include "driver/log/log_channel.h"
#include "driver/util/unlocked.h"

namespace
{
bool IsKeyInputLength(ULONG length)
{
    return length == TARNVEIL_KEY_INPUT_128 || length == TARNVEIL_KEY_INPUT_192 || length == TARNVEIL_KEY_INPUT_256;
}

// Reported as success: to the agent a key that is there is as good as its own.
NTSTATUS RefuseOverride()
{
    DbgPrint("Tarnveil - Tried to override the crypt key.\n");
    WriteLogRecord(LevelRefusedKey, PsGetCurrentProcessId(), nullptr, L"%s %s %s", SourceDeviceControl,
        OperationSetCryptKey, OutcomeOverrideKey);
    return STATUS_SUCCESS;
}
}

NTSTATUS SetCryptKey(Request& request)
{
    DbgPrint("Tarnveil - IOCTL_SET_CRYPTKEY %d\n", request.InputLength);
    if (LoadUnlocked(Global.KeyLength) != 0)
    {
        return RefuseOverride();
    }
    if (!IsKeyInputLength(request.InputLength))
    {
        return STATUS_INVALID_PARAMETER;
    }
    // Two requests at once must not mix their keys.
    if (!ClaimUnlocked(Global.KeyClaimed))
    {
        return RefuseOverride();
    }
    auto input = static_cast<const UCHAR*>(request.SystemBuffer);
    ULONG keyLength = request.InputLength - 1;
    RtlCopyMemory(Global.CryptKey, input, keyLength);
    StoreUnlocked(Global.XorByte, input[keyLength]);
    StoreUnlocked(Global.KeyLength, keyLength);
    return STATUS_SUCCESS;
}

NTSTATUS SetEncryption(Request& request)
{
    ULONG value = 0;
    if (request.InputLength != sizeof(value) || !InputWord(request, &value))
    {
        DbgPrint("Tarnveil - IOCTL_SET_ENCRYPTION: STATUS_INVALID_PARAMETER\n");
        return STATUS_INVALID_PARAMETER;
    }
    DbgPrint("Tarnveil - IOCTL_SET_ENCRYPTION: Encryption = %d\n", value);
    StoreUnlocked(Global.EncryptionEnabled, value);
    WriteLogRecord(LevelTrace, PsGetCurrentProcessId(), nullptr, L"%s %s Encrypt = %ws", SourceDeviceControl,
        OperationEncrypt, value != 0 ? L"Enable" : L"Disable");
    return STATUS_SUCCESS;
}

NTSTATUS Start(Request&)
{
    DbgPrint("Tarnveil - IOCTL_START\n");
    // The installer may have written what the list is built from since the last attempt.
    BRPLBuild();
    SetStarted(TRUE);
    return STATUS_SUCCESS;
}

NTSTATUS Stop(Request&)
{
    DbgPrint("Tarnveil - IOCTL_STOP\n");
    SetStarted(FALSE);
    constexpr bool log = true;
    ClearSettings(ParentProcessNames, log);
    ClearSettings(ProcessNames, log);
    ClearSettings(ExclusionProcessNames, log);
    ClearMonitoredParents(log);
    ClearMonitoredProcesses(log);
    CTClear(&Global.ProcessCache);
    StoreUnlocked(Global.EncryptionEnabled, static_cast<ULONG>(1));
    return STATUS_SUCCESS;
}
