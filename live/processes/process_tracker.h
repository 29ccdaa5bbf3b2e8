// The programs of the host system as processes of the hosted system.
#pragma once

#include "hosted/ps/process.h"

#include <sys/types.h>

#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

namespace hosted
{
class Connector;
class LinuxProcesses;

struct TrackerOptions
{
    // Where an executable of the host system lies for the hosted system: "/usr/bin/vim" ->
    // "\Device\HarddiskVolume1\usr\bin\vim". Called under the tracker's lock.
    std::function<WideString(const std::string& path)> ImageName = {};
    bool UseConnector = true; // the kernel's process connector, when it is allowed
    std::string Proc = "/proc";
    int ConnectorBufferBytes = 8 << 20;
    int ScanMilliseconds = 250; // without the connector
};

// Every program that runs is a process with the same id; fork, exec and exit reach the registered process notify
// routines. See docs/live-processes.md for what each way of finding out misses. Any number of threads. A
// notify routine must not call back here. IRQL: PASSIVE_LEVEL.
class ProcessTracker
{
public:
    // Afterwards every process that runs exists in the hosted system.
    explicit ProcessTracker(TrackerOptions options);
    // Every process that it made exits.
    ~ProcessTracker();
    ProcessTracker(const ProcessTracker&) = delete;
    ProcessTracker& operator=(const ProcessTracker&) = delete;

    // The process of a thread, by the host system's ids; what happened to processes before the call has been announced
    // when it returns. Referenced for the caller, and usable also after the process has exited.
    // The system process for kernel threads and for 0, which stands for the kernel itself. Null for a thread that is
    // gone and for one whose process or image cannot be told; outside of the first pid namespace also for 0, which
    // there stands for any task of another namespace as well. Such a request is nobody's and is to be refused.
    Process* ProcessOfThread(pid_t tid);
    // As above, by the id of the process.
    Process* ProcessById(pid_t pid);
    // Announces what happened before the call.
    void BringUpToDate();

    bool ConnectorInUse() const;
    // How often events were lost and /proc was asked for everything instead.
    size_t LostEvents() const;

private:
    void Drain();
    void Watch();

    const TrackerOptions options_;
    const bool everyTaskHasAnId_;
    mutable std::mutex mutex_;                   // held during notifications too
    const std::unique_ptr<Connector> connector_; // what it delivers is taken under the lock
    std::unique_ptr<LinuxProcesses> processes_;  // under the lock
    size_t lostEvents_ = 0;                      // under the lock
    int stop_;
    std::thread watcher_;
};
}
