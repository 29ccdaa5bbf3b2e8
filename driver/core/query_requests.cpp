// Requests that ask which processes are under the sandbox. Their answers go straight into the caller's buffer.

#include "driver/core/global_state.h"
#include "driver/core/request.h"
#include "driver/process/monitored_process.h"
#include "driver/util/debug_print.h"

#include <fault_guard.h>

namespace
{
NTSTATUS AnswerWord(const Request& request, ULONG word)
{
    if (request.OutputLength < sizeof(word))
    {
        return STATUS_INVALID_PARAMETER;
    }
    NTSTATUS status = ProbeCallerOutput(request, sizeof(word));
    return NT_SUCCESS(status) ? WriteCallerWord(request, word) : status;
}
}

NTSTATUS IsUnderSandbox(Request& request)
{
    ULONG number = 0;
    if (!InputWord(request, &number))
    {
        return STATUS_INVALID_PARAMETER;
    }
    HANDLE processId = ProcessIdHandle(number);
    ULONG settingId = 0;
    bool under =
        FindMonitoredParent(processId, &settingId) || FindMonitoredProcess(processId, MonitoredKindAny, &settingId);
    TracePrint(under ? "Tarnveil - IOCTL_IS_UNDER_SANDBOX :PID[%d]:TRUE\n"
                     : "Tarnveil - IOCTL_IS_UNDER_SANDBOX :PID[%d]:FALSE\n",
        number);
    return AnswerWord(request, under ? 1 : 0);
}

NTSTATUS IsExistUnderSandbox(Request& request)
{
    bool empty = IsMonitoredProcessListEmpty();
    TracePrint(
        empty ? "Tarnveil - IOCTL_IS_EXIST_UNDER_SANDBOX :FALSE\n" : "Tarnveil - IOCTL_IS_EXIST_UNDER_SANDBOX :TRUE\n");
    return AnswerWord(request, empty ? 0 : 1);
}

NTSTATUS GetPidListUnderSandbox(Request& request)
{
    DbgPrint("Tarnveil - IOCTL_GET_PID_LIST_UNDER_SANDBOX\n");
    if (request.CallerOutput == nullptr || request.OutputLength < sizeof(ULONG))
    {
        return GetMonitoredPidList(static_cast<PULONG>(request.CallerOutput), request.OutputLength);
    }
    NTSTATUS status = ProbeCallerOutput(request, request.OutputLength);
    if (!NT_SUCCESS(status))
    {
        return status;
    }
    NTSTATUS listed = STATUS_SUCCESS;
    status = TryAccess(
        [&] { listed = GetMonitoredPidList(static_cast<PULONG>(request.CallerOutput), request.OutputLength); });
    return NT_SUCCESS(status) ? listed : status;
}
