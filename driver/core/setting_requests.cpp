// Requests that add and delete settings.

#include "driver/core/request.h"
#include "driver/process/monitored_process.h"
#include "driver/process/setting_list.h"
#include "driver/util/pool.h"

namespace
{
// The string of a request's input. The agent terminates it; one that is not ends where the input ends.
class InputString
{
public:
    // False when there is no memory for a terminated copy.
    bool Take(const Request& request)
    {
        text_ = static_cast<PCWSTR>(request.SystemBuffer);
        ULONG characters = request.InputLength / sizeof(WCHAR);
        if (text_ == nullptr || IsTerminated(characters))
        {
            return true;
        }
        copy_ = PoolPointer<WCHAR>::Allocate((characters + 1) * sizeof(WCHAR));
        if (copy_)
        {
            RtlCopyMemory(copy_.Get(), text_, characters * sizeof(WCHAR));
        }
        text_ = copy_.Get();
        return text_ != nullptr;
    }

    // Null for a request without input.
    PCWSTR Text() const
    {
        return text_;
    }

private:
    bool IsTerminated(ULONG characters) const
    {
        for (ULONG i = 0; i < characters; ++i)
        {
            if (text_[i] == UNICODE_NULL)
            {
                return true;
            }
        }
        return false;
    }

    PCWSTR text_ = nullptr;
    PoolPointer<WCHAR> copy_;
};

NTSTATUS AddSettingRequest(const ProcessNameSettingList& list, const Request& request, PCSTR format)
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
    if (!path.Take(request))
    {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    status = AddSetting(list, path.Text(), &id);
    NTSTATUS written = WriteCallerWord(request, id);
    DbgPrint(format, path.Text(), id);
    return NT_SUCCESS(written) ? status : written;
}
}

NTSTATUS AddParentProcess(Request& request)
{
    return AddSettingRequest(ParentProcessNames, request, "Tarnveil - IOCTL_ADD_PARENT_PROCESS: '%ws', id(%d)\n");
}

NTSTATUS AddProcess(Request& request)
{
    return AddSettingRequest(ProcessNames, request, "Tarnveil - IOCTL_ADD_PROCESS: '%ws', id(%d)\n");
}

NTSTATUS AddExclusionProcess(Request& request)
{
    return AddSettingRequest(ExclusionProcessNames, request, "Tarnveil - IOCTL_ADD_EXC_PROCESS: '%ws', id(%d)\n");
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
