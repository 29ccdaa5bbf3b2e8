#include "driver/config/registry_value.h"

NTSTATUS OpenRegistryKey(PCUNICODE_STRING path, KernelHandle* key)
{
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, const_cast<PUNICODE_STRING>(path),
        OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, nullptr, nullptr);
    return ZwOpenKey(key->Address(), KEY_READ, &attributes);
}

NTSTATUS ProbeRegistryValue(HANDLE key, PCUNICODE_STRING name, PULONG size)
{
    // 20 bytes in all: the record up to its data, and room for 8 bytes of that.
    constexpr ULONG probeBytes = FIELD_OFFSET(KEY_VALUE_PARTIAL_INFORMATION, Data) + ProbeDataRoom;
    alignas(KEY_VALUE_PARTIAL_INFORMATION) UCHAR probe[probeBytes];
    return ZwQueryValueKey(
        key, const_cast<PUNICODE_STRING>(name), KeyValuePartialInformation, probe, probeBytes, size);
}

NTSTATUS ReadRegistryValue(
    HANDLE key, PCUNICODE_STRING name, ULONG size, PoolPointer<KEY_VALUE_PARTIAL_INFORMATION>* value)
{
    constexpr ULONG spareBytes = 1;
    *value = PoolPointer<KEY_VALUE_PARTIAL_INFORMATION>::Allocate(static_cast<SIZE_T>(size) + spareBytes);
    if (!*value)
    {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    ULONG required = 0;
    return ZwQueryValueKey(
        key, const_cast<PUNICODE_STRING>(name), KeyValuePartialInformation, value->Get(), size, &required);
}
