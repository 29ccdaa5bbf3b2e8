// Requests that add and delete settings.

#include "driver/core/input_string.h"
#include "driver/core/request.h"
#include "driver/process/file_protection.h"
#include "driver/process/monitored_process.h"
#include "driver/process/setting_list.h"
#include "driver/util/debug_print.h"

namespace
{
// Adds a setting with add(path, &id) and answers its id straight into the caller's buffer, whose four bytes are then
// printed with print(path, id). The path begins at `offset` of the input.
template <class Add, class Print>
NTSTATUS AddAndAnswer(const Request& request, ULONG offset, Add&& add, Print&& print)
{
    NTSTATUS status = ProbeCallerOutput(request, sizeof(ULONG));
    ULONG id = 0;
    if (NT_SUCCESS(status))
    {
        status = ReadCallerWord(request, &id);
    }
    if (!NT_SUCCESS(status))
    {
        return status;
    }
    InputString path;
    if (!path.Take(request, offset))
    {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    status = add(path.Text(), &id);
    NTSTATUS written = WriteCallerWord(request, id);
    print(path.Text(), id);
    return NT_SUCCESS(written) ? status : written;
}

NTSTATUS AddNameSetting(const ProcessNameSettingList& list, const Request& request, PCSTR format)
{
    return AddAndAnswer(
        request, 0, [&list](PCWSTR path, PULONG id) { return AddSetting(list, path, id); },
        [format](PCWSTR path, ULONG id) { DbgPrint(format, path, id); });
}
}

NTSTATUS AddParentProcess(Request& request)
{
    return AddNameSetting(ParentProcessNames, request, "Tarnveil - IOCTL_ADD_PARENT_PROCESS: '%ws', id(%d)\n");
}

NTSTATUS AddProcess(Request& request)
{
    return AddNameSetting(ProcessNames, request, "Tarnveil - IOCTL_ADD_PROCESS: '%ws', id(%d)\n");
}

NTSTATUS AddExclusionProcess(Request& request)
{
    return AddNameSetting(ExclusionProcessNames, request, "Tarnveil - IOCTL_ADD_EXC_PROCESS: '%ws', id(%d)\n");
}

NTSTATUS DeleteProcess(Request& request)
{
    ULONG id = 0;
    if (!InputWord(request, &id))
    {
        return STATUS_INVALID_PARAMETER;
    }
    DbgPrint("Tarnveil - IOCTL_DEL_PROCESS: id(%d)\n", id);
    DeleteSettingsById(ParentProcessNames, id);
    DeleteSettingsById(ProcessNames, id);
    DeleteSettingsById(ExclusionProcessNames, id);
    RemoveMonitoredParentsById(id);
    RemoveMonitoredProcessesById(id);
    return STATUS_SUCCESS;
}

NTSTATUS AddFileProtection(Request& request)
{
    ULONG process = 0;
    if (!InputWord(request, &process))
    {
        return STATUS_INVALID_PARAMETER;
    }
    return AddAndAnswer(
        request, sizeof(process), [process](PCWSTR path, PULONG id)
        { return AddFileProtectionSetting(ProcessIdHandle(process), path, id); }, [process](PCWSTR path, ULONG id)
        { DbgPrint("Tarnveil - IOCTL_ADD_FILE_PROTECTION: pid =  %d path = '%ws', id(%d)\n", process, path, id); });
}

NTSTATUS DeleteFileProtection(Request& request)
{
    ULONG id = 0;
    if (!InputWord(request, &id))
    {
        return STATUS_INVALID_PARAMETER;
    }
    DbgPrint("Tarnveil - IOCTL_DEL_FILE_PROTECTION: id(%d)\n", id);
    DeleteFileProtectionById(id);
    return STATUS_SUCCESS;
}
