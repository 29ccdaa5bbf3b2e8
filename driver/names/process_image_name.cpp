#include "driver/names/process_image_name.h"

#include "driver/core/system_routines.h"
#include "driver/names/no_memory.h"
#include "driver/util/debug_print.h"
#include "driver/util/name_matching.h"

namespace
{
constexpr WCHAR UncImagePrefix[] = L"\\??\\UNC";

NTSTATUS LocalImagePath(PFILE_OBJECT file, CountedString* path)
{
    UNICODE_STRING driveName = {};
    NTSTATUS status = IoVolumeDeviceToDosName(file->Vpb->RealDevice, &driveName);
    if (!NT_SUCCESS(status))
    {
        DbgPrint("IoVolumeDeviceToDosName failed: 0x%08x\n", status);
        return status;
    }
    SIZE_T capacity = driveName.MaximumLength + sizeof(WCHAR) + file->FileName.MaximumLength;
    bool copied = path->Copy(driveName, capacity) && path->Append(file->FileName);
    // The system's own allocation, so not under the driver's tag.
    ExFreePoolWithTag(driveName.Buffer, 0);
    if (!copied)
    {
        path->Free();
        return NoMemory();
    }
    return STATUS_SUCCESS;
}

NTSTATUS NetworkImagePath(const PS_CREATE_NOTIFY_INFO* createInfo, CountedString* path)
{
    UNICODE_STRING prefix = CountedView(UncImagePrefix);
    bool copied = false;
    if (createInfo->FileObject != nullptr && IsPrefixNameNoCase(&prefix, createInfo->ImageFileName))
    {
        const UNICODE_STRING& name = createInfo->FileObject->FileName;
        UNICODE_STRING backslash = CountedView(L"\\");
        copied = path->Copy(backslash, backslash.Length + sizeof(WCHAR) + name.MaximumLength) && path->Append(name);
    }
    else if (createInfo->ImageFileName != nullptr)
    {
        const UNICODE_STRING& name = *createInfo->ImageFileName;
        copied = path->Copy(name, name.MaximumLength + sizeof(WCHAR));
    }
    if (!copied)
    {
        path->Free();
        return NoMemory();
    }
    return STATUS_SUCCESS;
}

NTSTATUS QueryImageName(PEPROCESS process, HANDLE processId, PoolPointer<UNICODE_STRING>* imageName)
{
    KernelHandle handle;
    NTSTATUS status =
        ObOpenObjectByPointer(process, OBJ_KERNEL_HANDLE, nullptr, 0, nullptr, KernelMode, handle.Address());
    if (!NT_SUCCESS(status))
    {
        DbgPrint("ObOpenObjectByPointer Failed: 0x%08XL, ProcessId = %d\n", status, ProcessIdNumber(processId));
        return status;
    }
    PUNICODE_STRING answer = nullptr;
    status = QueryInformationProcess(handle.Get(), &answer);
    if (!NT_SUCCESS(status))
    {
        DbgPrint("QueryInformationProcess Failed: %08x\n", status);
        return status;
    }
    *imageName = PoolPointer<UNICODE_STRING>(answer);
    return status;
}
}

NTSTATUS GetFileNameFromCreateInfo(const PS_CREATE_NOTIFY_INFO* createInfo, CountedString* path)
{
    PFILE_OBJECT file = createInfo->FileObject;
    return file != nullptr && file->Vpb != nullptr ? LocalImagePath(file, path) : NetworkImagePath(createInfo, path);
}

NTSTATUS GetProcessImageNameFromProcessId(
    HANDLE processId, PoolPointer<UNICODE_STRING>* imageName, ProcessReference* process)
{
    if (KeGetCurrentIrql() >= DISPATCH_LEVEL)
    {
        DbgPrint("GetProcessImageNameFromProcessId Failed: ObOpenObjectByPointer should only be called at IRQL <= "
                 "APC_LEVEL.\n");
        return STATUS_UNSUCCESSFUL;
    }
    NTSTATUS status = PsLookupProcessByProcessId(processId, process->Address());
    if (!NT_SUCCESS(status))
    {
        DbgPrint("PsLookupProcessByProcessId Failed: 0x%08XL, ProcessId = %d\n", status, ProcessIdNumber(processId));
        return status;
    }
    return QueryImageName(process->Get(), processId, imageName);
}
