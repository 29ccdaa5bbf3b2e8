#include "driver/names/process_name.h"

#include "driver/names/process_snapshot.h"

NTSTATUS GetProcessName(PoolPointer<WCHAR>* name, HANDLE processId)
{
    *name = PoolPointer<WCHAR>();
    ProcessSnapshot snapshot;
    NTSTATUS status = snapshot.Take();
    if (!NT_SUCCESS(status))
    {
        return status;
    }
    const SYSTEM_PROCESS_INFORMATION* process = snapshot.Find(
        [processId](const SYSTEM_PROCESS_INFORMATION* record) { return record->UniqueProcessId == processId; });
    if (process == nullptr)
    {
        return STATUS_OBJECT_NAME_NOT_FOUND;
    }
    *name = PoolPointer<WCHAR>::Allocate(process->ImageName.Length + sizeof(WCHAR));
    if (!*name)
    {
        DbgPrint("[Logging] GetProcessName : resource allocation error\n");
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    RtlCopyMemory(name->Get(), process->ImageName.Buffer, process->ImageName.Length);
    return STATUS_SUCCESS;
}
