// Lines for the product's viewer, which reads them from a mailslot. Neither routine keeps state or takes a lock.
#pragma once

#include "driver/log/log_levels.h"

#include <ntifs.h>

// Which lines are wanted: the second-lowest byte of a value of the product key. *flags is 0 on every failure.
// Success with 0 for a value of another type or without data; STATUS_OBJECT_NAME_NOT_FOUND without a value;
// without memory the answer to the question for its size (STATUS_BUFFER_TOO_SMALL or STATUS_BUFFER_OVERFLOW); else the
// failure to open the key or to read the value. Failures are printed. IRQL PASSIVE_LEVEL.
NTSTATUS GetDebugLogFlags(PULONG flags);

// Writes one line: a header with the local time, the process and the level's name, and the message. STATUS_SUCCESS
// without a line above PASSIVE_LEVEL, when level and flags have no bit in common, and for a level without a name.
// A message that does not fit is left out, so the line is the header alone. The caller opened the mailslot and ends
// its message with a line end. `processName` is terminated; null prints as such.
// STATUS_INSUFFICIENT_RESOURCES without memory, STATUS_BUFFER_OVERFLOW when not even the header fits, else the
// failure to write, which is printed. Any IRQL.
NTSTATUS __cdecl WriteDebugMailslot(
    ULONG level, ULONG flags, HANDLE mailslot, ULONG processId, ULONG threadId, PCWSTR processName, PCWSTR format, ...);
