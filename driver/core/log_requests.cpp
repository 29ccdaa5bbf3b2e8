// Requests of the log channel.

#include "driver/core/global_state.h"
#include "driver/core/request.h"
#include "driver/log/log_channel.h"

NTSTATUS StartLoggingRequest(Request& request)
{
    if (request.InputLength != sizeof(TARNVEIL_START_LOGGING))
    {
        DbgPrint("Tarnveil - IOCTL_START_LOGGING: STATUS_INVALID_PARAMETER\n");
        return STATUS_INVALID_PARAMETER;
    }
    TARNVEIL_START_LOGGING input;
    RtlCopyMemory(&input, request.SystemBuffer, sizeof(input));
    DbgPrint("Tarnveil - IOCTL_START_LOGGING: Handle = %p Flags = 0x%08X\n", reinterpret_cast<PVOID>(input.EventHandle),
        input.Flags);
    return StartLogging(&input);
}

NTSTATUS StopLoggingRequest(Request&)
{
    DbgPrint("Tarnveil - IOCTL_STOP_LOGGING\n");
    return StopLogging();
}

NTSTATUS GetLogDataRequest(Request& request)
{
    TracePrint("Tarnveil - IOCTL_GET_LOG_DATA\n");
    ULONG length = request.OutputLength;
    NTSTATUS status = GetLogData(request.SystemBuffer, &length);
    request.Information = NT_SUCCESS(status) ? length : 0;
    return status;
}
