// Every running process, by id and in order of creation.
#pragma once

#include "hosted/ps/process.h"

#include <vector>

namespace hosted
{
struct ProcessSummary
{
    HANDLE Id;
    HANDLE ParentId;
    LONGLONG CreateTime;
    WideString ImageFileName;
};

// The bodies of process and thread objects, with one reference for the caller. A process made so is not yet in the
// table.
Process* CreateProcessObject(HANDLE id, HANDLE parentId, WideView imageNtPath, WideView imageFileName);
Thread* CreateThreadObject(Process* owner);

// The next unused id; ids are multiples of four and are not handed out again by themselves.
HANDLE AllocateProcessId();
// Takes a reference of its own. Bug check when the id is in use.
void InsertProcess(Process* process);
// Marks the process as exited and gives that reference back.
void RemoveProcess(Process* process);
// Referenced for the caller; null when no running process has that id.
Process* FindProcess(HANDLE id);
// The running processes, System first. The idle process is none of them.
std::vector<ProcessSummary> SnapshotProcesses();

// Forgets every process, thread and hook, and starts numbering again. No notifications; no thread may play a process
// meanwhile.
void ShutdownProcesses();
}
