#include "driver/process/process_notify.h"

#include "driver/config/browser_mode_list.h"
#include "driver/config/product_mode_list.h"
#include "driver/core/global_state.h"
#include "driver/log/log_channel.h"
#include "driver/names/long_path_name.h"
#include "driver/names/process_image_name.h"
#include "driver/process/file_protection.h"
#include "driver/process/monitored_process.h"
#include "driver/process/setting_list.h"
#include "driver/util/debug_print.h"

namespace
{
// A process that is being created.
struct Creation
{
    PEPROCESS Process;
    HANDLE ProcessId;
    HANDLE ParentId;
    PCUNICODE_STRING LongPath;
};

// The text after the last backslash that has something behind it, or the whole path.
UNICODE_STRING LastComponent(const UNICODE_STRING& path)
{
    for (LONG i = CharacterCount(path) - 2; i >= 0; --i)
    {
        if (path.Buffer[i] == L'\\')
        {
            return RightOf(path, static_cast<USHORT>((i + 1) * sizeof(WCHAR)));
        }
    }
    return path;
}

void RecordCreation(const Creation& creation, PCWSTR outcome, ULONG settingId)
{
    UNICODE_STRING name = LastComponent(*creation.LongPath);
    WriteLogRecord(LevelTrace, PsGetCurrentProcessId(), nullptr, L"%s %s id = %d ppid = %d pid = %d name = %wZ",
        SourceProcessCreated, outcome, settingId, ProcessIdNumber(creation.ParentId),
        ProcessIdNumber(creation.ProcessId), &name);
}

void AddProcess(const Creation& creation, ULONG settingId)
{
    TracePrint("Tarnveil - ProcessNameList:Exist: %wZ\n", creation.LongPath);
    InsertMonitoredProcess(creation.Process, creation.ProcessId, MonitoredKindProcess, settingId);
    RecordCreation(creation, OutcomeAddedProcess, settingId);
}

// By the image's own settings. True when they settle the matter.
bool JudgeByImage(const Creation& creation)
{
    ULONG settingId = 0;
    if (FindSetting(ExclusionProcessNames, creation.LongPath, &settingId))
    {
        TracePrint("Tarnveil - ExclusionProcessNameList:Exist: %wZ\n", creation.LongPath);
        RecordCreation(creation, OutcomeExcluded, settingId);
        return true;
    }
    bool isParent = FindSetting(ParentProcessNames, creation.LongPath, &settingId);
    if (isParent)
    {
        TracePrint("Tarnveil - ParentProcessNameList:Exist: %wZ\n", creation.LongPath);
        InsertMonitoredParent(creation.Process, creation.ProcessId, settingId);
        RecordCreation(creation, OutcomeAddedParent, settingId);
    }
    bool isProcess = FindSetting(ProcessNames, creation.LongPath, &settingId);
    if (isProcess)
    {
        AddProcess(creation, settingId);
    }
    return isParent || isProcess;
}

// By the creator. Only children of monitored parents and of their descendants follow; a process that is under the
// sandbox because of its own image hands nothing on.
void JudgeByCreator(const Creation& creation)
{
    ULONG settingId = 0;
    if (FindMonitoredParent(creation.ParentId, &settingId))
    {
        TracePrint("Tarnveil - MonitoredParentProcessList:Exist: %wZ\n", creation.LongPath);
    }
    else if (FindMonitoredProcess(creation.ParentId, MonitoredKindChild, &settingId))
    {
        TracePrint("Tarnveil - MonitoredProcessList:Exist: %wZ\n", creation.LongPath);
    }
    else
    {
        return;
    }
    InsertMonitoredProcess(creation.Process, creation.ProcessId, MonitoredKindChild, settingId);
    RecordCreation(creation, OutcomeAddedChild, settingId);
}

void OnProcessCreate(PEPROCESS process, HANDLE processId, const PS_CREATE_NOTIFY_INFO* createInfo)
{
    CountedString path;
    NTSTATUS status = GetFileNameFromCreateInfo(createInfo, &path);
    if (!NT_SUCCESS(status))
    {
        DbgPrint("Tarnveil - GetFileNameFromCreateInfo failed %08x\n", status);
        return;
    }
    CountedString longPath;
    status = KernelGetLongPathName(&path.Get(), &longPath);
    if (!NT_SUCCESS(status))
    {
        DbgPrint("Tarnveil - KernelGetLongPathName failed %08x\n", status);
        return;
    }
    if (IsBrowserModeActive())
    {
        BRPLInsert(processId, &longPath.Get());
    }
    HBPLInsert(processId, &longPath.Get());
    Creation creation = {process, processId, createInfo->ParentProcessId, &longPath.Get()};
    if (!JudgeByImage(creation))
    {
        JudgeByCreator(creation);
    }
}

void OnProcessExit(HANDLE processId)
{
    ULONG settingId = 0;
    if (FindMonitoredParent(processId, &settingId))
    {
        RemoveMonitoredParentsByProcess(processId);
    }
    if (FindMonitoredProcess(processId, MonitoredKindAny, &settingId))
    {
        RemoveMonitoredProcessesByProcess(processId);
    }
    DeleteFileProtectionsOfProcess(processId);
    BRPLRemove(processId);
    HBPLRemove(processId);
}
}

void NTAPI OnProcessNotify(PEPROCESS process, HANDLE processId, PPS_CREATE_NOTIFY_INFO createInfo)
{
    if (createInfo != nullptr)
    {
        OnProcessCreate(process, processId, createInfo);
    }
    else
    {
        OnProcessExit(processId);
    }
}
