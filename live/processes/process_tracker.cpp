#include "live/processes/process_tracker.h"

#include "hosted/ke/bug_check.h"
#include "live/processes/linux_processes.h"
#include "hosted/ob/object.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace hosted
{
namespace
{
Process* Referenced(Process* process)
{
    ReferenceObject(process);
    return process;
}

Process* Referenced(const LinuxProcess* process)
{
    return process == nullptr ? nullptr : Referenced(process->Played);
}
}

ProcessTracker::ProcessTracker(TrackerOptions options)
    : options_(std::move(options)), everyTaskHasAnId_(ProcFiles(options_.Proc).InFirstPidNamespace()),
      connector_(options_.UseConnector ? Connector::Open(options_.ConnectorBufferBytes) : nullptr),
      processes_(std::make_unique<LinuxProcesses>(options_.Proc, options_.ImageName)),
      stop_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))
{
    if (stop_ < 0)
    {
        BugCheck("PROCESS_TRACKER", "no event descriptor: %s", strerror(errno));
    }
    const std::lock_guard lock(mutex_);
    // The connector listens already, so what changes during this first look is heard of afterwards.
    processes_->ExpectEvents(connector_ != nullptr);
    processes_->Reconcile();
    watcher_ = std::thread([this] { Watch(); });
}

ProcessTracker::~ProcessTracker()
{
    eventfd_write(stop_, 1);
    watcher_.join();
    close(stop_);
}

Process* ProcessTracker::ProcessOfThread(pid_t tid)
{
    const std::lock_guard lock(mutex_);
    if (tid == 0)
    {
        return everyTaskHasAnId_ ? Referenced(SystemProcess()) : nullptr;
    }
    Drain();
    const LinuxProcess* known = connector_ != nullptr ? processes_->FindByThread(tid) : nullptr;
    return Referenced(known != nullptr ? known : processes_->BringByThread(tid));
}

Process* ProcessTracker::ProcessById(pid_t pid)
{
    const std::lock_guard lock(mutex_);
    Drain();
    const LinuxProcess* known = connector_ != nullptr ? processes_->Find(pid) : nullptr;
    if (known == nullptr)
    {
        // /proc answers by the id of any thread.
        known = processes_->BringByThread(pid);
    }
    return known != nullptr && known->Id == pid ? Referenced(known) : nullptr;
}

void ProcessTracker::BringUpToDate()
{
    const std::lock_guard lock(mutex_);
    Drain();
    if (connector_ == nullptr)
    {
        processes_->Reconcile();
    }
}

bool ProcessTracker::ConnectorInUse() const
{
    return connector_ != nullptr;
}

size_t ProcessTracker::LostEvents() const
{
    const std::lock_guard lock(mutex_);
    return lostEvents_;
}

// What is queued when this is called. An event that was made later was also queued later, so that it is a sign to stop
// and not to run after events for ever. After an overrun the queue only gets shorter until it is empty; what /proc says
// from then on, and what is queued from then on, are the whole truth again.
void ProcessTracker::Drain()
{
    if (connector_ == nullptr)
    {
        return;
    }
    const uint64_t called = MonotonicNow();
    bool overrun = false;
    bool lost = false;
    ConnectorEvent event{};
    for (;;)
    {
        const Connector::Result result = connector_->Receive(&event);
        if (result == Connector::Result::Empty)
        {
            break;
        }
        if (result == Connector::Result::Overrun)
        {
            overrun = true;
            continue;
        }
        lost = lost || event.AfterLoss;
        processes_->Apply(event);
        if (event.Time > called && !overrun)
        {
            break;
        }
    }
    if (overrun || lost)
    {
        ++lostEvents_;
        processes_->Reconcile();
    }
}

// Keeps up while nobody asks, since the image of a process can be told only while it runs.
void ProcessTracker::Watch()
{
    const int connector = connector_ != nullptr ? connector_->Descriptor() : -1;
    const int timeout = connector_ != nullptr ? -1 : options_.ScanMilliseconds;
    pollfd wanted[] = {{stop_, POLLIN, 0}, {connector, POLLIN, 0}};
    for (;;)
    {
        poll(wanted, std::size(wanted), timeout);
        if (wanted[0].revents != 0)
        {
            return;
        }
        BringUpToDate();
    }
}
}
