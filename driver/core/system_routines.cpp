#include "driver/core/system_routines.h"

namespace
{
typedef NTSTATUS(NTAPI* ProcessQueryRoutine)(
    HANDLE process, PROCESSINFOCLASS kind, PVOID buffer, ULONG length, PULONG required);
typedef NTSTATUS(NTAPI* SystemQueryRoutine)(SYSTEM_INFORMATION_CLASS kind, PVOID buffer, ULONG length, PULONG required);

// Set once found; a second look-up stores the same pointer. Not part of the global state: they outlive its clearing.
ProcessQueryRoutine ProcessQuery;
SystemQueryRoutine SystemQuery;

// The texts differ per query. The first one does not describe its condition, but this is how viewers know it.
struct ProbeTexts
{
    PCSTR SlotInUse;
    PCSTR Failed;
    PCSTR SizeIsZero;
    PCSTR NoMemory;
};

constexpr ProbeTexts ProcessTexts = {"[DlExtFunc] QueryInformationProcess : ProcessInformationLength is zero.\n",
    "[DlExtFunc] QueryInformationProcess failed : non-mismatch %08X\n",
    "[DlExtFunc] QueryInformationProcess : the size of buffer required is zero.\n",
    "[DlExtFunc] QueryInformationProcess : resource allocation error\n"};
constexpr ProbeTexts SystemTexts = {"[DlExtFunc] QuerySystemInformation : SystemInformationLength is zero.\n",
    "[DlExtFunc] QuerySystemInformation failed : non-mismatch %08X\n",
    "[DlExtFunc] QuerySystemInformation : the size of buffer required is zero.\n",
    "[DlExtFunc] QuerySystemInformation : resource allocation error\n"};

PVOID FindSystemRoutine(PCWSTR name)
{
    UNICODE_STRING counted;
    RtlInitUnicodeString(&counted, name);
    return MmGetSystemRoutineAddress(&counted);
}

// Calls query(buffer, length, &required) with the size it asks for until the answer fits. A list that keeps growing
// between two calls is simply asked for again.
template <class Query>
NTSTATUS ProbeAndQuery(const ProbeTexts& texts, PVOID* result, Query&& query)
{
    if (*result != nullptr)
    {
        DbgPrint(texts.SlotInUse);
        return STATUS_INVALID_PARAMETER;
    }
    PoolPointer<UCHAR> buffer;
    ULONG length = 0;
    for (;;)
    {
        ULONG required = 0;
        NTSTATUS status = query(buffer.Get(), length, &required);
        if (NT_SUCCESS(status))
        {
            *result = buffer.Detach();
            return status;
        }
        if (status != STATUS_INFO_LENGTH_MISMATCH)
        {
            DbgPrint(texts.Failed, status);
            return status;
        }
        if (required == 0)
        {
            DbgPrint(texts.SizeIsZero);
            return STATUS_INSUFFICIENT_RESOURCES;
        }
        buffer = PoolPointer<UCHAR>();
        buffer = PoolPointer<UCHAR>::Allocate(required);
        if (!buffer)
        {
            DbgPrint(texts.NoMemory);
            return STATUS_INSUFFICIENT_RESOURCES;
        }
        length = required;
    }
}
}

void InitializeSystemRoutines()
{
    ResolveProcessQuery();
    ResolveSystemQuery();
}

NTSTATUS ResolveProcessQuery()
{
    if (ProcessQuery == nullptr)
    {
        ProcessQuery = reinterpret_cast<ProcessQueryRoutine>(FindSystemRoutine(L"ZwQueryInformationProcess"));
    }
    if (ProcessQuery == nullptr)
    {
        DbgPrint("[DlExtFunc] Cannot resolve ZwQueryInformationProcess\n");
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    return STATUS_SUCCESS;
}

NTSTATUS ResolveSystemQuery()
{
    if (SystemQuery == nullptr)
    {
        SystemQuery = reinterpret_cast<SystemQueryRoutine>(FindSystemRoutine(L"ZwQuerySystemInformation"));
    }
    if (SystemQuery == nullptr)
    {
        DbgPrint("[DlExtFunc] Cannot resolve ZwQuerySystemInformation\n");
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    return STATUS_SUCCESS;
}

NTSTATUS QueryInformationProcess(HANDLE process, PUNICODE_STRING* result)
{
    NTSTATUS status = ResolveProcessQuery();
    if (!NT_SUCCESS(status))
    {
        return status;
    }
    PVOID buffer = *result;
    status = ProbeAndQuery(ProcessTexts, &buffer, [process](PVOID answer, ULONG length, PULONG required)
        { return ProcessQuery(process, ProcessImageFileName, answer, length, required); });
    *result = static_cast<PUNICODE_STRING>(buffer);
    return status;
}

NTSTATUS QuerySystemInformation(PSYSTEM_PROCESS_INFORMATION* result)
{
    NTSTATUS status = ResolveSystemQuery();
    if (!NT_SUCCESS(status))
    {
        return status;
    }
    PVOID buffer = *result;
    status = ProbeAndQuery(SystemTexts, &buffer, [](PVOID answer, ULONG length, PULONG required)
        { return SystemQuery(SystemProcessInformation, answer, length, required); });
    *result = static_cast<PSYSTEM_PROCESS_INFORMATION>(buffer);
    return status;
}
