// Reading registry values: the one reader that all configuration shares. IRQL PASSIVE_LEVEL.
#pragma once

#include "driver/util/kernel_handle.h"
#include "driver/util/pool.h"

// Opens a key with KEY_READ as a kernel handle.
NTSTATUS OpenRegistryKey(PCUNICODE_STRING path, KernelHandle* key);

// Asks for a value with too small a buffer to learn the size of its record (*size, in bytes). `room` is the bytes of
// data that the probe's own buffer holds: a value that fits succeeds, any other answers STATUS_BUFFER_OVERFLOW or
// STATUS_BUFFER_TOO_SMALL.
inline constexpr ULONG ProbeDataRoom = 8;
NTSTATUS ProbeRegistryValue(HANDLE key, PCUNICODE_STRING name, PULONG size);
inline bool IsSizeAnswer(NTSTATUS status)
{
    return status == STATUS_BUFFER_OVERFLOW || status == STATUS_BUFFER_TOO_SMALL;
}

// Reads a value's record of the probed size. One zeroed byte follows the record.
// STATUS_INSUFFICIENT_RESOURCES without memory, else the query's failure.
NTSTATUS ReadRegistryValue(
    HANDLE key, PCUNICODE_STRING name, ULONG size, PoolPointer<KEY_VALUE_PARTIAL_INFORMATION>* value);
