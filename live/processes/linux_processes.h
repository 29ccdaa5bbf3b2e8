// The processes of the host system, each played by a process of the hosted system.
#pragma once

#include "live/processes/connector.h"
#include "live/processes/proc_files.h"
#include "hosted/ps/process.h"

#include <functional>
#include <unordered_map>
#include <unordered_set>

namespace hosted
{
struct LinuxProcess
{
    pid_t Id;
    pid_t Parent;                       // the process that forked it, also after that has exited
    std::optional<uint64_t> StartTicks; // as in /proc; none when it had exited before it could be looked at
    uint64_t StackStart;                // as in /proc; 0 when unknown
    uint64_t SeenAt; // all of this was read after that time, in ns of CLOCK_MONOTONIC, so that earlier events are in it
    bool Kernel;     // a kernel thread: played by the system process
    ProcImage Image;
    WideString ImageName;
    std::unordered_set<pid_t> Threads = {};
    hosted::Process* Played = nullptr; // referenced
};

// Every change is announced to the registered process notify routines before the routine that makes it returns. Not
// for several threads at once. IRQL: PASSIVE_LEVEL.
class LinuxProcesses
{
public:
    using ImageNaming = std::function<WideString(const std::string& path)>;

    LinuxProcesses(std::string proc, ImageNaming naming);
    // Every process exits, the youngest first.
    ~LinuxProcesses();

    // With complete events a process that is known is known as it is; without, /proc is asked each time.
    void ExpectEvents(bool complete) { eventsComplete_ = complete; }
    // In the order in which the connector delivers them.
    void Apply(const ConnectorEvent& event);
    // Makes the list agree with /proc, whatever happened.
    void Reconcile();

    // By what is known already; null when unknown.
    LinuxProcess* Find(pid_t pid);
    LinuxProcess* FindByThread(pid_t tid);
    // By /proc: a process, which its id must name, or a thread's process; after its ancestors. Null when it has exited,
    // or when the image that it runs cannot be told.
    LinuxProcess* Bring(pid_t pid);
    LinuxProcess* BringByThread(pid_t tid);

    // The id of the process in the hosted system: its own, but for the one that the system process has there.
    static HANDLE HostedId(pid_t pid);

private:
    void OnFork(const ConnectorEvent& event);
    void OnExec(const ConnectorEvent& event);
    void OnExit(const ConnectorEvent& event);

    LinuxProcess* Update(LinuxProcess* known, pid_t pid, const ProcStat& stat, uint64_t now);
    LinuxProcess* AddFromProc(pid_t pid, pid_t parent, const ProcStat& stat, uint64_t now);
    // Another image in the same process. Null when it cannot be told; the process is gone from the list then.
    LinuxProcess* ChangeImage(LinuxProcess* process, const ProcStat& stat, uint64_t now);
    LinuxProcess* Add(LinuxProcess process, LONGLONG createTime);
    void End(LinuxProcess* process);
    void AddThread(LinuxProcess* process, pid_t tid);
    void ListThreads(LinuxProcess* process);
    void ForgetThreads(LinuxProcess* process);
    bool HasExited(pid_t pid, const std::optional<ProcStat>& stat) const;

    void Play(LinuxProcess* process, LONGLONG createTime);
    WideString ImageName(const ProcImage& image, const LinuxProcess* parent) const;
    static bool IsSame(const LinuxProcess& process, const ProcStat& stat);
    LONGLONG TimeOfStart(uint64_t startTicks) const;
    LONGLONG NextCreateTime();

    const ProcFiles proc_;
    const ImageNaming naming_;
    bool eventsComplete_ = false;
    bool taken_ = false; // the first look at the whole system is over
    LONGLONG systemStart_;
    LONGLONG lastCreateTime_ = 0;
    std::unordered_map<pid_t, LinuxProcess> processes_;
    std::unordered_map<pid_t, pid_t> processOf_; // by thread
};
}
