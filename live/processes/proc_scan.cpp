// What /proc changes, where no event told of it.
#include "live/processes/linux_processes.h"

#include <algorithm>

namespace hosted
{
// A process runs while any thread of it does; the first one may have ended.
bool LinuxProcesses::HasExited(pid_t pid, const std::optional<ProcStat>& stat) const
{
    return !stat.has_value() || (stat->Exited() && proc_.LiveThreads(pid).empty());
}

LinuxProcess* LinuxProcesses::Bring(pid_t pid)
{
    const uint64_t now = MonotonicNow();
    const auto stat = proc_.Process(pid);
    LinuxProcess* known = Find(pid);
    if (HasExited(pid, stat))
    {
        if (known != nullptr)
        {
            End(known);
        }
        return nullptr;
    }
    return Update(known, pid, *stat, now);
}

LinuxProcess* LinuxProcesses::BringByThread(pid_t tid)
{
    LinuxProcess* known = FindByThread(tid);
    if (known != nullptr)
    {
        const pid_t pid = known->Id;
        known = Bring(pid);
        if (known != nullptr && (tid == pid || proc_.Thread(pid, tid).has_value()))
        {
            return known;
        }
    }
    const auto pid = proc_.ProcessOfThread(tid);
    known = pid.has_value() ? Bring(*pid) : nullptr;
    // The process may have ended, and its id been used again, before it was looked at.
    if (known == nullptr || !proc_.Thread(*pid, tid).has_value())
    {
        return nullptr;
    }
    AddThread(known, tid);
    return known;
}

LinuxProcess* LinuxProcesses::Update(LinuxProcess* known, pid_t pid, const ProcStat& stat, uint64_t now)
{
    if (known != nullptr && !IsSame(*known, stat))
    {
        End(known);
        known = nullptr;
    }
    if (known == nullptr)
    {
        // The parent first, so that it is known for what it is when the child is judged.
        if (stat.Parent > 0 && !(eventsComplete_ && Find(stat.Parent) != nullptr))
        {
            Bring(stat.Parent);
        }
        return AddFromProc(pid, stat.Parent, stat, now);
    }
    const bool execed = stat.StackStart != 0 && stat.StackStart != known->StackStart;
    const bool leftKernel = known->Kernel && !stat.KernelThread;
    if (execed || leftKernel)
    {
        return ChangeImage(known, stat, now);
    }
    known->SeenAt = now;
    ListThreads(known);
    return known;
}

LinuxProcess* LinuxProcesses::AddFromProc(pid_t pid, pid_t parent, const ProcStat& stat, uint64_t now)
{
    ProcImage image{};
    WideString name;
    if (!stat.KernelThread)
    {
        auto read = proc_.Image(pid);
        if (!read.has_value())
        {
            return nullptr;
        }
        name = ImageName(*read, Find(parent));
        image = std::move(*read);
    }
    LinuxProcess* added = Add({.Id = pid,
                                  .Parent = parent,
                                  .StartTicks = stat.StartTicks,
                                  .StackStart = stat.StackStart,
                                  .SeenAt = now,
                                  .Kernel = stat.KernelThread,
                                  .Image = std::move(image),
                                  .ImageName = std::move(name)},
        taken_ ? NextCreateTime() : TimeOfStart(stat.StartTicks));
    ListThreads(added);
    return added;
}

LinuxProcess* LinuxProcesses::ChangeImage(LinuxProcess* process, const ProcStat& stat, uint64_t now)
{
    const pid_t pid = process->Id;
    const pid_t parent = process->Parent;
    End(process);
    return AddFromProc(pid, parent, stat, now);
}

void LinuxProcesses::Reconcile()
{
    std::vector<std::pair<uint64_t, pid_t>> running; // by start
    std::unordered_set<pid_t> ids;
    for (const pid_t pid : proc_.Processes())
    {
        const auto stat = proc_.Process(pid);
        if (!HasExited(pid, stat))
        {
            running.emplace_back(stat->StartTicks, pid);
            ids.insert(pid);
        }
    }
    std::vector<pid_t> exited;
    for (const auto& [pid, process] : processes_)
    {
        if (!ids.contains(pid))
        {
            exited.push_back(pid);
        }
    }
    for (const pid_t pid : exited)
    {
        End(Find(pid));
    }
    std::ranges::sort(running);
    for (const auto& [start, pid] : running)
    {
        LinuxProcess* updated = Bring(pid);
        if (updated != nullptr && !eventsComplete_)
        {
            // Those that are still there are found again when they ask.
            ForgetThreads(updated);
        }
    }
    taken_ = true;
}
}
