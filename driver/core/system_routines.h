// Two query routines that are looked up by name, and wrappers that ask for the size of the answer until it fits.
// IRQL PASSIVE_LEVEL throughout.
#pragma once

#include "driver/util/pool.h"

#include <ntifs.h>

// Looks both routines up; a routine that is not found is printed, and looked up again when it is needed.
void InitializeSystemRoutines();
// STATUS_INSUFFICIENT_RESOURCES, printed, when the system has no such routine.
NTSTATUS ResolveProcessQuery();
NTSTATUS ResolveSystemQuery();

// The image file name of the process behind a handle: a counted string followed by its characters, in a pool buffer
// that the caller owns. *result must be null on entry (STATUS_INVALID_PARAMETER).
// STATUS_INSUFFICIENT_RESOURCES: no memory, no such routine, or the system asked for 0 bytes; else the query's own
// failure. Each is printed. Success with *result null when the system had nothing to answer with.
NTSTATUS QueryInformationProcess(HANDLE process, PUNICODE_STRING* result);
// The chain of process records of class SystemProcessInformation, likewise; NextEntryOffset counts bytes.
NTSTATUS QuerySystemInformation(PSYSTEM_PROCESS_INFORMATION* result);
