#include "hosted/ps/current_thread.h"

#include "hosted/ke/bug_check.h"
#include "hosted/ob/caller.h"
#include "hosted/ps/process_table.h"

#include <cstdint>
#include <set>

namespace hosted
{
namespace
{
struct SystemThreads
{
    std::mutex Mutex;
    std::set<Thread*> Alive;
    uint64_t Generation = 1;
};

// Never destroyed: Linux threads may end after the program's static objects.
SystemThreads& Registry()
{
    static auto* registry = new SystemThreads;
    return *registry;
}

// What one Linux thread plays.
struct Slot
{
    Thread* Attached = nullptr;
    Thread* System = nullptr;
    uint64_t Generation = 0;

    ~Slot()
    {
        SystemThreads& registry = Registry();
        bool mine;
        {
            const std::lock_guard lock(registry.Mutex);
            mine = registry.Generation == Generation && registry.Alive.erase(System) == 1;
        }
        if (mine)
        {
            DereferenceObject(System);
        }
    }
};

thread_local Slot slot;

Thread* SystemThread()
{
    SystemThreads& registry = Registry();
    {
        const std::lock_guard lock(registry.Mutex);
        if (slot.System != nullptr && slot.Generation == registry.Generation)
        {
            return slot.System;
        }
    }
    Thread* thread = CreateThreadObject(SystemProcess());
    const std::lock_guard lock(registry.Mutex);
    slot.System = thread;
    slot.Generation = registry.Generation;
    registry.Alive.insert(thread);
    return thread;
}
}

Thread* CurrentThread()
{
    return slot.Attached != nullptr ? slot.Attached : SystemThread();
}

Process* CurrentProcess()
{
    return slot.Attached != nullptr ? slot.Attached->Owner : SystemProcess();
}

namespace
{
class PlayedCaller final : public CallerSource
{
public:
    void* Process() const override { return CurrentProcess(); }
    void* Thread() const override { return CurrentThread(); }
    HandleTable& Handles() const override { return CurrentProcess()->Handles; }
};

const PlayedCaller caller;
}

AttachedProcess::AttachedProcess(Process* process) : previous_(slot.Attached), thread_(CreateThreadObject(process))
{
    slot.Attached = thread_;
}

AttachedProcess::~AttachedProcess()
{
    if (slot.Attached != thread_)
    {
        BugCheck("ATTACH_ORDER", "processes are left in another order than they were entered");
    }
    slot.Attached = previous_;
    DereferenceObject(thread_);
}

void ForgetSystemThreads()
{
    if (slot.Attached != nullptr)
    {
        BugCheck("ATTACHED_AT_SHUTDOWN", "the thread still plays process %p", slot.Attached->Owner->Id);
    }
    std::set<Thread*> forgotten;
    {
        SystemThreads& registry = Registry();
        const std::lock_guard lock(registry.Mutex);
        forgotten.swap(registry.Alive);
        ++registry.Generation;
    }
    for (Thread* thread : forgotten)
    {
        DereferenceObject(thread);
    }
}
}

extern "C" HANDLE NTAPI PsGetCurrentProcessId(void)
{
    return hosted::CurrentProcess()->Id;
}

extern "C" HANDLE NTAPI PsGetCurrentThreadId(void)
{
    return hosted::CurrentThread()->Id;
}
