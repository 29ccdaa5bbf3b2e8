// Reading and opening registry values: the one reader that all configuration shares. IRQL PASSIVE_LEVEL.
#pragma once

#include "driver/util/kernel_handle.h"
#include "driver/util/pool.h"

// The product's own key, which its installer writes.
inline constexpr WCHAR ProductKeyPath[] = L"\\Registry\\Machine\\SOFTWARE\\WOW6432Node\\Orvane Works\\Hollowbay";

// All statuses are the system's own.

// Opens a key with that access as a kernel handle, into an empty owner.
NTSTATUS OpenRegistryKey(PCUNICODE_STRING path, ACCESS_MASK access, KernelHandle* key);

// Asks for the size of a value's record (*size, in bytes) without taking any of it: an answer for which IsSizeAnswer
// holds, or the failure to find the value.
NTSTATUS AskRegistryValueSize(HANDLE key, PCUNICODE_STRING name, PULONG size);

// Asks for a value with too small a buffer to learn the size of its record (*size, in bytes). The probe's own buffer
// holds ProbeDataRoom bytes of data: a value that fits succeeds, any other answers STATUS_BUFFER_OVERFLOW or
// STATUS_BUFFER_TOO_SMALL.
inline constexpr ULONG ProbeDataRoom = 8;
NTSTATUS ProbeRegistryValue(HANDLE key, PCUNICODE_STRING name, PULONG size);
inline bool IsSizeAnswer(NTSTATUS status)
{
    return status == STATUS_BUFFER_OVERFLOW || status == STATUS_BUFFER_TOO_SMALL;
}

typedef PoolPointer<KEY_VALUE_PARTIAL_INFORMATION> RegistryValue;

// Room for a record of that size and one zeroed byte behind it; empty when there is no memory.
RegistryValue AllocateRegistryValue(ULONG size);
// Reads a value's record of the size that was asked for into such room.
NTSTATUS QueryRegistryValue(HANDLE key, PCUNICODE_STRING name, ULONG size, const RegistryValue& value);

// The characters of a value's data up to its first NUL or its end, and no more than a counted string can show; the data
// stays in the record.
UNICODE_STRING TextOfValue(const RegistryValue& value);
