#include "driver/names/dos_name.h"

#include "driver/names/no_memory.h"
#include "driver/util/kernel_handle.h"
#include "driver/util/name_matching.h"

namespace
{
constexpr USHORT DriveBytes = 2 * sizeof(WCHAR);

NTSTATUS ReadLinkTarget(HANDLE link, CountedString* target)
{
    UNICODE_STRING none = {};
    ULONG length = 0;
    NTSTATUS status = ZwQuerySymbolicLinkObject(link, &none, &length);
    if (status != STATUS_BUFFER_TOO_SMALL)
    {
        DbgPrint("ZwOpenSymbolicLinkObject failed (not TOO_SMALL) %x\n", status);
        return NT_SUCCESS(status) ? STATUS_UNSUCCESSFUL : status;
    }
    if (length == 0)
    {
        DbgPrint("SymbolicLinkLength is zero\n");
        return STATUS_UNSUCCESSFUL;
    }
    if (!target->Allocate(length))
    {
        return NoMemory();
    }
    status = ZwQuerySymbolicLinkObject(link, target->Address(), &length);
    if (!NT_SUCCESS(status))
    {
        DbgPrint("ZwQuerySymbolicLinkObject failed %x\n", status);
    }
    return status;
}
}

NTSTATUS GetNtNameFromDosName(PCUNICODE_STRING dosPath, CountedString* ntPath)
{
    UNICODE_STRING pattern = CountedView(DrivePathPattern);
    if (!MatchNamePattern(dosPath, &pattern))
    {
        DbgPrint("GetNtNameFromDosName failed: Invalid Parameter %wZ\n", dosPath);
        return STATUS_INVALID_PARAMETER;
    }
    WCHAR linkBuffer[] = L"\\??\\?:";
    linkBuffer[4] = dosPath->Buffer[0];
    UNICODE_STRING linkName = CountedView(linkBuffer);
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, &linkName, OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, nullptr, nullptr);

    KernelHandle link;
    NTSTATUS status = ZwOpenSymbolicLinkObject(link.Address(), GENERIC_READ, &attributes);
    if (!NT_SUCCESS(status))
    {
        DbgPrint("ZwOpenSymbolicLinkObject failed %x\n", status);
        return status;
    }
    CountedString target;
    status = ReadLinkTarget(link.Get(), &target);
    if (!NT_SUCCESS(status))
    {
        return status;
    }
    UNICODE_STRING remainder = RightOf(*dosPath, DriveBytes);
    if (!ntPath->Copy(target.Get(), static_cast<SIZE_T>(target.Get().Length) + remainder.Length))
    {
        return NoMemory();
    }
    ntPath->Append(remainder);
    return STATUS_SUCCESS;
}
