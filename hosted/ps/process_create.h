// Processes come and go: what NtCreateUserProcess and the end of the last thread do, as far as a driver sees it.
#pragma once

#include "hosted/ps/process.h"

#include <functional>

namespace host
{
struct ProcessParameters
{
    WideString ImagePath;       // NT path as the creator gives it, e.g. "\??\C:\Apps\Editor.exe"
    WideString CommandLine;     // empty: the image path in quotes
    HANDLE ParentId = nullptr;  // null: the creator; another process when the creator chose one
    HANDLE Id = nullptr;        // null: the next one; else this one, which no running process may have
    bool NameAvailable = true;  // PS_CREATE_NOTIFY_INFO.FileOpenNameAvailable
};

// Opens the image in the calling process's context (filters see that), tells the registered routines on the calling
// thread, and on success gives the running process with a reference for the caller. Fails with the status of the open
// or with the one that a routine left in CreationStatus; a process refused that way is told to have exited.
// IRQL: PASSIVE_LEVEL.
NTSTATUS CreateProcess(const ProcessParameters& parameters, Process** process);

// Ends a process: the routines hear of it on a thread of that process, while it can still be looked up; then
// `closeResources` runs in its context, its handles are closed and it disappears. The reference of the caller stays.
void ExitProcess(Process* process, const std::function<void()>& closeResources = {});
}
