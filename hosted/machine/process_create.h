// Processes come and go: what NtCreateUserProcess and the end of the last thread do, as far as a driver sees it.
#pragma once

#include "hosted/ps/process.h"

#include <functional>

namespace hosted
{
struct ProcessParameters
{
    WideString ImagePath;      // NT path as the creator gives it, e.g. "\??\C:\Apps\Editor.exe"
    WideString CommandLine;    // empty: the image path in quotes
    HANDLE ParentId = nullptr; // null: the creator; another process when the creator chose one
    HANDLE Id = nullptr;       // null: the next one; else this one, which no running process may have
    bool NameAvailable = true; // PS_CREATE_NOTIFY_INFO.FileOpenNameAvailable
};

// Opens the image in the calling process's context (filters see that), tells the registered routines on the calling
// thread, and on success gives the running process with a reference for the caller. Fails with the status of the open
// or with the one that a routine left in CreationStatus; a process refused that way is told to have exited.
// IRQL: PASSIVE_LEVEL.
NTSTATUS CreateProcess(const ProcessParameters& parameters, Process** process);

// A program of Linux that runs already.
struct AdoptedProcess
{
    HANDLE Id; // which no running process may have
    HANDLE ParentId;
    LONGLONG CreateTime;  // 100 ns units
    WideString ImagePath; // NT device path, e.g. "\Device\HarddiskVolume1\usr\bin\vim"; it may lie on no volume
};

// Makes it a running process and tells the registered routines, on the calling thread and as a child of the process
// that this thread plays. Linux opened the image, so no request is sent for it: the routines get a file
// object that names it on its volume; for an image on no volume they get none, and are told that the process is one of
// another subsystem, for which the platform leaves it out. There is no command line, and what a routine leaves in
// CreationStatus counts for nothing: the program runs. Referenced for the caller. IRQL: PASSIVE_LEVEL.
Process* AdoptProcess(const AdoptedProcess& adopted);

// Ends a process: the routines hear of it on a thread of that process, while it can still be looked up; then
// `closeResources` runs in its context, its handles are closed and it disappears. The reference of the caller stays.
void ExitProcess(Process* process, const std::function<void()>& closeResources = {});
}
