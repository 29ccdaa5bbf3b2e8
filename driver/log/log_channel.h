// The agent's log channel: a bounded queue of fixed-size records, and an event that is signalled for each.
// One fast mutex guards it; records are made and filled outside the lock.
#pragma once

#include "driver/log/labels.h"
#include "driver/log/log_levels.h"

#include <ntifs.h>
#include <tarnveil/control.h>

// Once, at load. STATUS_UNSUCCESSFUL when done already. IRQL up to DISPATCH_LEVEL.
NTSTATUS InitializeLogChannel();
// At unload: as StopLogging, and the channel may be initialised anew. IRQL up to APC_LEVEL.
void FinalizeLogChannel();

// Registers the agent's event and the levels to queue; a repetition with the same handle and flags changes nothing.
// STATUS_UNSUCCESSFUL before initialisation, else the failure to reference the handle (the registration before
// stays). IRQL PASSIVE_LEVEL, in the agent's process.
NTSTATUS StartLogging(const TARNVEIL_START_LOGGING* input);
// Drops every record, the event and the flags. STATUS_UNSUCCESSFUL before initialisation. IRQL up to APC_LEVEL.
NTSTATUS StopLogging();

// Queues one record if its level is enabled. `processName` may be null: then it is looked up. The format follows the
// kernel's wide formatter (%s is wide); a message that is too long is cut. Above PASSIVE_LEVEL only the debugger hears
// of it. STATUS_UNSUCCESSFUL before initialisation, STATUS_INSUFFICIENT_RESOURCES without memory, else the failure to
// name the process; no caller acts on it. Never called with a lock held.
NTSTATUS __cdecl WriteLogRecord(ULONG level, HANDLE processId, PCWSTR processName, PCWSTR format, ...);

// True when an event is registered for a level of the word. Any IRQL up to DISPATCH_LEVEL.
BOOLEAN IsLogLevelEnabled(ULONG level);
// How many records wait. IRQL up to APC_LEVEL, after initialisation.
ULONG GetLogRecordCount();

// Moves as many whole records as fit, oldest first, into the buffer. *length: its bytes on entry, the bytes moved on
// return. STATUS_BUFFER_TOO_SMALL for less than one record's room, STATUS_NO_MORE_ENTRIES for an empty queue,
// STATUS_UNSUCCESSFUL before initialisation (*length is then left alone). The buffer is kernel memory. IRQL up to
// DISPATCH_LEVEL; above APC_LEVEL without the lock.
NTSTATUS GetLogData(PVOID buffer, PULONG length);
