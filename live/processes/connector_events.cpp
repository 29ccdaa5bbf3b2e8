// What the connector's events change.
#include "live/processes/linux_processes.h"

namespace hosted
{
void LinuxProcesses::Apply(const ConnectorEvent& event)
{
    switch (event.What)
    {
    case ConnectorEvent::Kind::Fork:
        OnFork(event);
        break;
    case ConnectorEvent::Kind::Exec:
        OnExec(event);
        break;
    case ConnectorEvent::Kind::Exit:
        OnExit(event);
        break;
    }
}

void LinuxProcesses::OnFork(const ConnectorEvent& event)
{
    LinuxProcess* known = Find(event.Process);
    if (event.Thread != event.Process)
    {
        if (known != nullptr && event.Time >= known->SeenAt)
        {
            AddThread(known, event.Thread);
        }
        return;
    }
    const uint64_t now = MonotonicNow();
    const auto stat = proc_.Process(event.Process);
    const bool exited = HasExited(event.Process, stat);
    if (known != nullptr)
    {
        if (event.Time < known->SeenAt || (!exited && IsSame(*known, *stat)))
        {
            return;
        }
        End(known);
    }
    // Its own image, not the parent's: the process that is named the parent need not be the one that forked it.
    if (!exited && AddFromProc(event.Process, event.Parent, *stat, now) != nullptr)
    {
        return;
    }
    const auto after = proc_.Process(event.Process);
    const bool exits = HasExited(event.Process, after) || after->Exiting;
    const LinuxProcess* parent = Find(event.Parent);
    if (exits && parent != nullptr && !parent->Kernel && parent->SeenAt <= event.Time)
    {
        // Too late to see its image, but whoever it has forked is to be judged as its child.
        Add({.Id = event.Process,
                .Parent = event.Parent,
                .StartTicks = std::nullopt,
                .StackStart = parent->StackStart,
                .SeenAt = event.Time,
                .Kernel = false,
                .Image = parent->Image,
                .ImageName = parent->ImageName},
            NextCreateTime());
    }
}

void LinuxProcesses::OnExec(const ConnectorEvent& event)
{
    LinuxProcess* known = Find(event.Process);
    const uint64_t now = MonotonicNow();
    if (known != nullptr && event.Time < known->SeenAt)
    {
        // Seen already, but perhaps together with the threads that an exec ends.
        ListThreads(known);
        return;
    }
    const auto stat = proc_.Process(event.Process);
    if (HasExited(event.Process, stat))
    {
        // It ran too briefly for its image to be told. Whoever it has forked has an unknown parent.
        if (known != nullptr)
        {
            End(known);
        }
        return;
    }
    if (known == nullptr)
    {
        Update(nullptr, event.Process, *stat, now);
        return;
    }
    ChangeImage(known, *stat, now);
}

// The first thread may end before the others, and a thread that runs an exec takes over the first one's id; so a
// process without threads is looked at before it is believed to have ended.
void LinuxProcesses::OnExit(const ConnectorEvent& event)
{
    LinuxProcess* known = Find(event.Process);
    if (known == nullptr)
    {
        return;
    }
    if (known->Threads.erase(event.Thread) != 0)
    {
        processOf_.erase(event.Thread);
    }
    if (!known->Threads.empty())
    {
        return;
    }
    const auto stat = known->Kernel ? std::nullopt : proc_.Process(event.Process);
    const bool sameRuns = stat.has_value() && IsSame(*known, *stat) && !HasExited(event.Process, stat);
    if (!sameRuns)
    {
        End(known);
        return;
    }
    ListThreads(known);
}
}
