// What the host system's /proc says about its processes.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace hosted
{
struct ProcStat
{
    char State;
    pid_t Parent;
    bool KernelThread;
    bool Exiting;        // on its way out: it has no image any more, or will not have one in a moment
    uint64_t StartTicks; // when it was forked, in clock ticks since the system started
    uint64_t StackStart; // where the image's stack began: another after each exec; 0 when it cannot be read

    bool Exited() const { return State == 'Z' || State == 'X' || State == 'x'; }
};

struct ProcImage
{
    std::string Path; // as it would read if the image's mount were one of this process's own; see IsMountHere
    uint64_t MountId; // 0 when it cannot be told or what is told cannot be believed
    bool operator==(const ProcImage&) const = default;
};

// No routine opens or waits for a file outside of /proc, so none comes back through a volume that this process serves.
// All answer "none" for what is not there or may not be read.
class ProcFiles
{
public:
    explicit ProcFiles(std::string root) : root_(std::move(root)) {}

    std::optional<ProcStat> Process(pid_t pid) const;
    // The thread's own state and start; none unless it is a thread of that process.
    std::optional<ProcStat> Thread(pid_t pid, pid_t tid) const;
    std::optional<pid_t> ProcessOfThread(pid_t tid) const;
    std::optional<ProcImage> Image(pid_t pid) const;
    // Whether paths of that mount mean these files in the tree that this process sees. In a mount namespace of its own,
    // or from memory, a program gives itself whatever path it likes.
    bool IsMountHere(uint64_t mountId) const;
    std::vector<pid_t> Processes() const;
    // The threads of a process that have not exited.
    std::vector<pid_t> LiveThreads(pid_t pid) const;
    // In the first pid namespace every task has an id; in another one those outside of it have none.
    bool InFirstPidNamespace() const;

private:
    std::vector<pid_t> Numbers(const std::string& folder) const;

    std::string root_;
};
}
