// The browser-mode list: programs that may open the browser product's data inside the sandbox. Built when the
// installer has said which product is there, at load or at a later start request. IRQL PASSIVE_LEVEL, no locks held.
#pragma once

#include <ntifs.h>

// Builds the list unless it is built. STATUS_SUCCESS also when the installer mode cannot be read yet; then the next
// call tries again. STATUS_INSUFFICIENT_RESOURCES leaves it unbuilt, with the patterns that were added.
NTSTATUS BRPLBuild();
// True once the list was built for a product with a browser; then processes are offered to it as they start.
bool IsBrowserModeActive();
// Whether a path is in the browser product's data folder.
bool BRPLIsDataPath(PCUNICODE_STRING path);

// Takes in a process that starts if its image path, in whatever form, matches a pattern. STATUS_INSUFFICIENT_RESOURCES.
NTSTATUS BRPLInsert(HANDLE processId, PCUNICODE_STRING imagePath);
// Every running process of an image, named by its drive-letter path, whatever the patterns say.
// STATUS_INVALID_PARAMETER for a null argument, else the failure to turn the path into its NT form.
NTSTATUS BRPLRegistProcess(const SYSTEM_PROCESS_INFORMATION* snapshot, PCUNICODE_STRING path);
// A process that exits.
void BRPLRemove(HANDLE processId);
// Whether a process is in the list: STATUS_SUCCESS or STATUS_NOT_FOUND.
NTSTATUS BRPLLookup(HANDLE processId);
// At unload.
void BRPLClear();
