// The product-mode list: the product's own programs, which may open the product's folder although they are not under
// the sandbox. IRQL PASSIVE_LEVEL, no locks held.
#pragma once

#include "driver/util/counted_string.h"

// Builds the list unless it is built, and takes in the programs that already run. At load, once the sandbox folder is
// known: the product's folder is that path without its last two characters.
// STATUS_INSUFFICIENT_RESOURCES, or the failure to look at the running processes, leaves it unbuilt.
NTSTATUS HBPLBuild(const UNICODE_STRING& sandboxPath);
// Whether a path is in the product's folder.
bool HBPLIsProductPath(PCUNICODE_STRING path);

// Takes in a process that starts if its image path, in whatever form, matches a pattern. STATUS_INSUFFICIENT_RESOURCES.
NTSTATUS HBPLInsert(HANDLE processId, PCUNICODE_STRING imagePath);
// The same for every running process. STATUS_INVALID_PARAMETER, printed, for a null snapshot.
NTSTATUS HBPLRegistProcess(const SYSTEM_PROCESS_INFORMATION* snapshot);
// A process that exits.
void HBPLRemove(HANDLE processId);
// Whether a process is in the list: STATUS_SUCCESS or STATUS_NOT_FOUND.
NTSTATUS HBPLLookup(HANDLE processId);
// At unload.
void HBPLClear();
