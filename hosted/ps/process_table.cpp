#include "hosted/ps/process_table.h"

#include "hosted/ke/bug_check.h"
#include "hosted/ke/system_time.h"
#include "hosted/ps/current_thread.h"
#include "hosted/ps/query_hooks.h"

#include <atomic>
#include <list>
#include <new>
#include <unordered_map>

namespace hosted
{
namespace
{
constexpr ULONG_PTR SystemProcessId = 4;
// About where the first process that the session manager starts is numbered.
constexpr ULONG_PTR FirstProcessId = 0x108;
// Threads are numbered far away, so that process ids do not depend on how much was done.
constexpr ULONG_PTR FirstThreadId = 0x100000;

std::mutex tableMutex;
// In order of creation, and where each stands there.
std::list<Process*> running;
std::unordered_map<HANDLE, std::list<Process*>::iterator> placeOf;
Process* systemProcess = nullptr;
std::atomic<ULONG_PTR> nextProcessId{FirstProcessId};
std::atomic<ULONG_PTR> nextThreadId{FirstThreadId};

void DeleteProcess(void* body)
{
    static_cast<Process*>(body)->~Process();
}

void DeleteThread(void* body)
{
    DereferenceObject(static_cast<Thread*>(body)->Owner);
}

Process* FindLocked(HANDLE id)
{
    const auto found = placeOf.find(id);
    return found == placeOf.end() ? nullptr : *found->second;
}

void InsertLocked(Process* process)
{
    if (FindLocked(process->Id) != nullptr)
    {
        BugCheck("PROCESS_ID_IN_USE", "process id %p belongs to a running process", process->Id);
    }
    ReferenceObject(process);
    placeOf[process->Id] = running.insert(running.end(), process);
}

Process* SystemProcessLocked()
{
    if (systemProcess == nullptr)
    {
        const auto id = reinterpret_cast<HANDLE>(SystemProcessId);
        systemProcess = CreateProcessObject(id, nullptr, WideView{}, L"System");
        InsertLocked(systemProcess);
    }
    return systemProcess;
}
}

const ObjectType ProcessType = {"Process", nullptr, DeleteProcess};
const ObjectType ThreadType = {"Thread", nullptr, DeleteThread};

Process* CreateProcessObject(HANDLE id, HANDLE parentId, WideView imageNtPath, WideView imageFileName)
{
    void* body = CreateObject(ProcessType, sizeof(Process));
    return new (body) Process{.Id = id,
        .ParentId = parentId,
        .CreateTime = SystemTime(),
        .ImageNtPath = WideString(imageNtPath),
        .ImageFileName = WideString(imageFileName)};
}

Thread* CreateThreadObject(Process* owner)
{
    ReferenceObject(owner);
    void* body = CreateObject(ThreadType, sizeof(Thread));
    return new (body) Thread{.Id = reinterpret_cast<HANDLE>(nextThreadId.fetch_add(4)), .Owner = owner};
}

HANDLE AllocateProcessId()
{
    const std::lock_guard lock(tableMutex);
    HANDLE id;
    do
    {
        id = reinterpret_cast<HANDLE>(nextProcessId.fetch_add(4));
    } while (FindLocked(id) != nullptr);
    return id;
}

void InsertProcess(Process* process)
{
    const std::lock_guard lock(tableMutex);
    SystemProcessLocked();
    InsertLocked(process);
}

void RemoveProcess(Process* process)
{
    {
        const std::lock_guard lock(tableMutex);
        if (process == systemProcess || FindLocked(process->Id) != process)
        {
            BugCheck("PROCESS_NOT_RUNNING", "process id %p cannot exit", process->Id);
        }
        const auto place = placeOf.find(process->Id);
        running.erase(place->second);
        placeOf.erase(place);
        process->Exited = true;
    }
    DereferenceObject(process);
}

Process* FindProcess(HANDLE id)
{
    const std::lock_guard lock(tableMutex);
    SystemProcessLocked();
    Process* process = FindLocked(id);
    if (process != nullptr)
    {
        ReferenceObject(process);
    }
    return process;
}

std::vector<ProcessSummary> SnapshotProcesses()
{
    const std::lock_guard lock(tableMutex);
    SystemProcessLocked();
    std::vector<ProcessSummary> all;
    all.reserve(running.size());
    for (const Process* process : running)
    {
        all.push_back({process->Id, process->ParentId, process->CreateTime, process->ImageFileName});
    }
    return all;
}

Process* SystemProcess()
{
    const std::lock_guard lock(tableMutex);
    return SystemProcessLocked();
}

void ShutdownProcesses()
{
    ForgetSystemThreads();
    std::list<Process*> remaining;
    Process* system;
    {
        const std::lock_guard lock(tableMutex);
        remaining.swap(running);
        placeOf.clear();
        system = systemProcess;
        systemProcess = nullptr;
        nextProcessId = FirstProcessId;
        nextThreadId = FirstThreadId;
    }
    for (Process* process : remaining)
    {
        DereferenceObject(process);
    }
    if (system != nullptr)
    {
        DereferenceObject(system);
    }
    ResetQueryHooks();
}
}
