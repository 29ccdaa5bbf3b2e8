#include "driver/util/registry_value.h"

namespace
{
constexpr ULONG SpareBytes = 1;
// The longest text that a counted string can show.
constexpr ULONG MostTextCharacters = 0xfffe / sizeof(WCHAR);
}

NTSTATUS OpenRegistryKey(PCUNICODE_STRING path, ACCESS_MASK access, KernelHandle* key)
{
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(
        &attributes, const_cast<PUNICODE_STRING>(path), OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, nullptr, nullptr);
    return ZwOpenKey(key->Address(), access, &attributes);
}

NTSTATUS AskRegistryValueSize(HANDLE key, PCUNICODE_STRING name, PULONG size)
{
    return ZwQueryValueKey(key, const_cast<PUNICODE_STRING>(name), KeyValuePartialInformation, nullptr, 0, size);
}

NTSTATUS ProbeRegistryValue(HANDLE key, PCUNICODE_STRING name, PULONG size)
{
    // 20 bytes in all: the record up to its data, and room for 8 bytes of that.
    constexpr ULONG probeBytes = FIELD_OFFSET(KEY_VALUE_PARTIAL_INFORMATION, Data) + ProbeDataRoom;
    alignas(KEY_VALUE_PARTIAL_INFORMATION) UCHAR probe[probeBytes];
    return ZwQueryValueKey(key, const_cast<PUNICODE_STRING>(name), KeyValuePartialInformation, probe, probeBytes, size);
}

RegistryValue AllocateRegistryValue(ULONG size)
{
    return RegistryValue::Allocate(static_cast<SIZE_T>(size) + SpareBytes);
}

NTSTATUS QueryRegistryValue(HANDLE key, PCUNICODE_STRING name, ULONG size, const RegistryValue& value)
{
    ULONG required = 0;
    return ZwQueryValueKey(
        key, const_cast<PUNICODE_STRING>(name), KeyValuePartialInformation, value.Get(), size, &required);
}

UNICODE_STRING TextOfValue(const RegistryValue& value)
{
    UNICODE_STRING text = {};
    text.Buffer = reinterpret_cast<PWSTR>(value->Data);
    ULONG characters = value->DataLength / sizeof(WCHAR);
    for (ULONG i = 0; i < characters && i < MostTextCharacters && text.Buffer[i] != UNICODE_NULL; ++i)
    {
        text.Length = static_cast<USHORT>(text.Length + sizeof(WCHAR));
    }
    text.MaximumLength = text.Length;
    return text;
}
