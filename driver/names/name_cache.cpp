#include "driver/names/name_cache.h"

namespace
{
struct CacheRecord
{
    ULONG Hash;
    // Owned by the record; empty when it was inserted without an element.
    UNICODE_STRING Element;
};

RTL_GENERIC_COMPARE_RESULTS NTAPI CompareRecords(RTL_GENERIC_TABLE*, PVOID first, PVOID second)
{
    ULONG firstHash = static_cast<CacheRecord*>(first)->Hash;
    ULONG secondHash = static_cast<CacheRecord*>(second)->Hash;
    if (firstHash == secondHash)
    {
        return GenericEqual;
    }
    return firstHash < secondHash ? GenericLessThan : GenericGreaterThan;
}

PVOID NTAPI AllocateRecord(RTL_GENERIC_TABLE*, ULONG bytes)
{
    return AllocatePool(bytes);
}

void NTAPI FreeRecord(RTL_GENERIC_TABLE*, PVOID memory)
{
    FreePool(memory);
}

// Prints "<operation> fail ..." and hands the status back.
NTSTATUS Report(PCSTR format, NTSTATUS status, PCUNICODE_STRING key)
{
    DbgPrint(format, status, key);
    return status;
}

constexpr char HashFailed[] = "RtlHashUnicodeString fail NTSTATUS = 0x%08x path = %wZ\n";
constexpr char LookupFailed[] = "CTLookupElement fail NTSTATUS = 0x%08x path = %wZ\n";
constexpr char InsertFailed[] = "CTInsertElement fail NTSTATUS = 0x%08x path = %wZ\n";

NTSTATUS HashKey(PCUNICODE_STRING key, ULONG* hash)
{
    NTSTATUS status = RtlHashUnicodeString(key, FALSE, HASH_STRING_ALGORITHM_X65599, hash);
    return NT_SUCCESS(status) ? status : Report(HashFailed, status, key);
}

NTSTATUS LookupLocked(CacheTable* table, ULONG hash, PCUNICODE_STRING key, CountedString* element)
    REQUIRES_LOCK(table->Lock)
{
    CacheRecord wanted = {hash, {}};
    auto found = static_cast<CacheRecord*>(RtlLookupElementGenericTable(&table->Table, &wanted));
    if (found == nullptr)
    {
        return STATUS_NOT_FOUND;
    }
    if (found->Element.Buffer == nullptr || element == nullptr)
    {
        return STATUS_SUCCESS;
    }
    if (!element->Copy(found->Element, found->Element.Length + sizeof(WCHAR)))
    {
        return Report(LookupFailed, STATUS_INSUFFICIENT_RESOURCES, key);
    }
    return STATUS_SUCCESS;
}

NTSTATUS InsertLocked(CacheTable* table, ULONG hash, PCUNICODE_STRING key, PCUNICODE_STRING element)
    REQUIRES_LOCK(table->Lock)
{
    CacheRecord record = {hash, {}};
    BOOLEAN isNew = FALSE;
    auto inserted =
        static_cast<CacheRecord*>(RtlInsertElementGenericTable(&table->Table, &record, sizeof(record), &isNew));
    if (inserted == nullptr)
    {
        return Report(
            "RtlInsertElementGenericTable fail NTSTATUS = 0x%08x path = %wZ\n", STATUS_INSUFFICIENT_RESOURCES, key);
    }
    if (!isNew || element == nullptr || element->Length == 0)
    {
        return STATUS_SUCCESS;
    }
    CountedString copy;
    if (!copy.Copy(*element, element->Length))
    {
        return Report(InsertFailed, STATUS_INSUFFICIENT_RESOURCES, key);
    }
    inserted->Element = copy.Detach();
    return STATUS_SUCCESS;
}
}

NTSTATUS CTInitialize(CacheTable* table) NO_LOCK_ANALYSIS
{
    if (table == nullptr)
    {
        DbgPrint("CTInitialize fail NTSTATUS = 0x%08x\n", STATUS_INVALID_PARAMETER);
        return STATUS_INVALID_PARAMETER;
    }
    table->Lock.Initialize();
    RtlInitializeGenericTable(&table->Table, CompareRecords, AllocateRecord, FreeRecord, nullptr);
    return STATUS_SUCCESS;
}

NTSTATUS CTFinalize(CacheTable* table)
{
    if (table == nullptr)
    {
        DbgPrint("CTFinalize fail NTSTATUS = 0x%08x\n", STATUS_INVALID_PARAMETER);
        return STATUS_INVALID_PARAMETER;
    }
    CTClear(table);
    return STATUS_SUCCESS;
}

void CTClear(CacheTable* table)
{
    WithLockBelowDispatch(table->Lock,
        [table]() REQUIRES_LOCK(table->Lock)
        {
            while (PVOID first = RtlGetElementGenericTable(&table->Table, 0))
            {
                FreePool(static_cast<CacheRecord*>(first)->Element.Buffer);
                RtlDeleteElementGenericTable(&table->Table, first);
            }
        });
}

NTSTATUS CTGetElementCount(CacheTable* table, PULONG count)
{
    if (table == nullptr || count == nullptr)
    {
        DbgPrint("CTGetElementCount fail NTSTATUS = 0x%08x\n", STATUS_INVALID_PARAMETER);
        return STATUS_INVALID_PARAMETER;
    }
    WithLockBelowDispatch(
        table->Lock, [=]() REQUIRES_LOCK(table->Lock) { *count = RtlNumberGenericTableElements(&table->Table); });
    return STATUS_SUCCESS;
}

NTSTATUS CTLookupElement(CacheTable* table, PCUNICODE_STRING key, CountedString* element, ULONG)
{
    if (table == nullptr || key == nullptr)
    {
        return Report(LookupFailed, STATUS_INVALID_PARAMETER, key);
    }
    if (KeGetCurrentIrql() > APC_LEVEL)
    {
        return Report(LookupFailed, STATUS_UNSUCCESSFUL, key);
    }
    ULONG hash = 0;
    NTSTATUS status = HashKey(key, &hash);
    if (!NT_SUCCESS(status))
    {
        return status;
    }
    WithLock(table->Lock, [&]() REQUIRES_LOCK(table->Lock) { status = LookupLocked(table, hash, key, element); });
    return status;
}

NTSTATUS CTInsertElement(CacheTable* table, PCUNICODE_STRING key, PCUNICODE_STRING element, ULONG)
{
    if (table == nullptr || key == nullptr)
    {
        return Report(InsertFailed, STATUS_INVALID_PARAMETER, key);
    }
    // Never fails for a table.
    ULONG count = 0;
    CTGetElementCount(table, &count);
    if (count >= CacheTableLimit)
    {
        return Report("CTInsertElement cache full NTSTATUS = 0x%08x path = %wZ\n", STATUS_INSUFFICIENT_RESOURCES, key);
    }
    if (KeGetCurrentIrql() > APC_LEVEL)
    {
        return Report(InsertFailed, STATUS_UNSUCCESSFUL, key);
    }
    ULONG hash = 0;
    NTSTATUS status = HashKey(key, &hash);
    if (!NT_SUCCESS(status))
    {
        return status;
    }
    WithLock(table->Lock, [&]() REQUIRES_LOCK(table->Lock) { status = InsertLocked(table, hash, key, element); });
    return status;
}
