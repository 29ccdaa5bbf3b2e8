#include "hosted/ps/process_notify.h"

#include "hosted/ke/bug_check.h"
#include "hosted/ke/failure_injection.h"
#include "hosted/ke/irql.h"

#include <algorithm>
#include <condition_variable>
#include <memory>
#include <vector>

namespace hosted
{
namespace
{
constexpr size_t MaximumRoutines = 64;

struct Registration
{
    PCREATE_PROCESS_NOTIFY_ROUTINE_EX Routine;
    size_t Running = 0;
};

std::mutex notifyMutex;
std::condition_variable noneRunning;
std::vector<std::shared_ptr<Registration>> registrations;
bool imageForcesIntegrity = true;
// The registrations whose routines this thread is inside of.
thread_local std::vector<const Registration*> inside;

auto Find(PCREATE_PROCESS_NOTIFY_ROUTINE_EX routine)
{
    return std::ranges::find_if(registrations, [routine](const auto& entry) { return entry->Routine == routine; });
}

bool StartRunning(const std::shared_ptr<Registration>& registration)
{
    const std::lock_guard lock(notifyMutex);
    if (std::ranges::find(registrations, registration) == registrations.end())
    {
        return false;
    }
    ++registration->Running;
    return true;
}

void StopRunning(const std::shared_ptr<Registration>& registration)
{
    const std::lock_guard lock(notifyMutex);
    if (--registration->Running == 0)
    {
        noneRunning.notify_all();
    }
}

void CallAll(Process* process, PS_CREATE_NOTIFY_INFO* information)
{
    RequireIrql(PASSIVE_LEVEL, "process notification");
    std::vector<std::shared_ptr<Registration>> all;
    {
        const std::lock_guard lock(notifyMutex);
        all = registrations;
    }
    for (const auto& registration : all)
    {
        if (!StartRunning(registration))
        {
            continue;
        }
        inside.push_back(registration.get());
        registration->Routine(AsProcess(process), process->Id, information);
        inside.pop_back();
        if (CurrentIrql() != PASSIVE_LEVEL)
        {
            BugCheck("IRQL_UNEXPECTED_VALUE", "a process notify routine returned at level %u", CurrentIrql());
        }
        StopRunning(registration);
    }
}

NTSTATUS Register(PCREATE_PROCESS_NOTIFY_ROUTINE_EX routine)
{
    const std::lock_guard lock(notifyMutex);
    if (!imageForcesIntegrity)
    {
        return STATUS_ACCESS_DENIED;
    }
    if (Find(routine) != registrations.end() || registrations.size() == MaximumRoutines)
    {
        return STATUS_INVALID_PARAMETER;
    }
    registrations.push_back(std::make_shared<Registration>(Registration{routine}));
    return STATUS_SUCCESS;
}

NTSTATUS Unregister(PCREATE_PROCESS_NOTIFY_ROUTINE_EX routine)
{
    std::unique_lock lock(notifyMutex);
    const auto found = Find(routine);
    if (found == registrations.end())
    {
        return STATUS_PROCEDURE_NOT_FOUND;
    }
    const auto registration = *found;
    if (std::ranges::find(inside, registration.get()) != inside.end())
    {
        BugCheck("NOTIFY_ROUTINE_WAITS_FOR_ITSELF", "a process notify routine removes itself");
    }
    registrations.erase(found);
    noneRunning.wait(lock, [&registration] { return registration->Running == 0; });
    return STATUS_SUCCESS;
}
}

void NotifyProcessCreated(Process* process, PS_CREATE_NOTIFY_INFO& information)
{
    CallAll(process, &information);
}

void NotifyProcessExited(Process* process)
{
    CallAll(process, nullptr);
}

void SetImageForcesIntegrity(bool forces)
{
    const std::lock_guard lock(notifyMutex);
    imageForcesIntegrity = forces;
}

size_t RegisteredNotifyRoutines()
{
    const std::lock_guard lock(notifyMutex);
    return registrations.size();
}

void ResetNotifyRoutines()
{
    const std::lock_guard lock(notifyMutex);
    registrations.clear();
    imageForcesIntegrity = true;
}
}

extern "C" NTSTATUS NTAPI PsSetCreateProcessNotifyRoutineEx(
    PCREATE_PROCESS_NOTIFY_ROUTINE_EX NotifyRoutine, BOOLEAN Remove)
{
    hosted::RequireIrql(PASSIVE_LEVEL, "PsSetCreateProcessNotifyRoutineEx");
    if (hosted::InjectFailure("PsSetCreateProcessNotifyRoutineEx"))
    {
        return Remove ? STATUS_PROCEDURE_NOT_FOUND : STATUS_INVALID_PARAMETER;
    }
    return Remove ? hosted::Unregister(NotifyRoutine) : hosted::Register(NotifyRoutine);
}
