#include "live/processes/linux_processes.h"

#include "hosted/fs/linux_files.h"
#include "hosted/machine/process_create.h"
#include "hosted/ps/process_table.h"

#include <unistd.h>

#include <algorithm>
#include <ctime>

namespace hosted
{
namespace
{
constexpr LONGLONG UnitsPerSecond = 10'000'000;
constexpr pid_t SystemId = 4;
// Above every id that the kernel gives (its pid_max is at most 2^22), and a multiple of four as ids are.
constexpr ULONG_PTR IdInPlaceOfSystem = 0x400004;
// Images that no path of this file tree leads to. No volume has this name.
constexpr WCHAR UnreachableDevice[] = L"\\Device\\Unreachable";

LONGLONG TimeSinceStart()
{
    timespec now;
    clock_gettime(CLOCK_BOOTTIME, &now);
    return now.tv_sec * UnitsPerSecond + now.tv_nsec / 100;
}

LONGLONG SystemTimeNow()
{
    timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    return SystemTimeOf(now);
}
}

HANDLE LinuxProcesses::HostedId(pid_t pid)
{
    return reinterpret_cast<HANDLE>(pid == SystemId ? IdInPlaceOfSystem : static_cast<ULONG_PTR>(pid));
}

LinuxProcesses::LinuxProcesses(std::string proc, ImageNaming naming)
    : proc_(std::move(proc)), naming_(std::move(naming)), systemStart_(SystemTimeNow() - TimeSinceStart())
{
}

LinuxProcesses::~LinuxProcesses()
{
    std::vector<LinuxProcess*> all;
    for (auto& [pid, process] : processes_)
    {
        all.push_back(&process);
    }
    std::ranges::sort(all, std::greater{}, [](const LinuxProcess* process) { return process->Played->CreateTime; });
    for (LinuxProcess* process : all)
    {
        End(process);
    }
}

LinuxProcess* LinuxProcesses::Find(pid_t pid)
{
    const auto found = processes_.find(pid);
    return found == processes_.end() ? nullptr : &found->second;
}

LinuxProcess* LinuxProcesses::FindByThread(pid_t tid)
{
    const auto found = processOf_.find(tid);
    return found == processOf_.end() ? nullptr : Find(found->second);
}

LinuxProcess* LinuxProcesses::Add(LinuxProcess process, LONGLONG createTime)
{
    const pid_t pid = process.Id;
    LinuxProcess* added = &processes_.insert_or_assign(pid, std::move(process)).first->second;
    AddThread(added, pid);
    Play(added, createTime);
    return added;
}

// Announced as by its parent, or by the system when that is not known.
void LinuxProcesses::Play(LinuxProcess* process, LONGLONG createTime)
{
    if (process->Kernel)
    {
        process->Played = SystemProcess();
        ReferenceObject(process->Played);
        return;
    }
    const LinuxProcess* parent = Find(process->Parent);
    hosted::Process* creator = parent == nullptr ? SystemProcess() : parent->Played;
    const AttachedProcess attached(creator);
    process->Played = AdoptProcess({.Id = HostedId(process->Id),
        .ParentId = parent == nullptr ? HostedId(process->Parent) : creator->Id,
        .CreateTime = createTime,
        .ImagePath = process->ImageName});
}

void LinuxProcesses::End(LinuxProcess* process)
{
    hosted::Process* played = process->Played;
    const bool kernel = process->Kernel;
    ForgetThreads(process);
    processes_.erase(process->Id);
    if (!kernel)
    {
        ExitProcess(played);
    }
    DereferenceObject(played);
}

void LinuxProcesses::AddThread(LinuxProcess* process, pid_t tid)
{
    const auto [entry, added] = processOf_.try_emplace(tid, process->Id);
    if (!added && entry->second != process->Id)
    {
        // The id was used again before the exit of its former thread was heard of.
        LinuxProcess* former = Find(entry->second);
        if (former != nullptr)
        {
            former->Threads.erase(tid);
        }
        entry->second = process->Id;
    }
    process->Threads.insert(tid);
}

void LinuxProcesses::ForgetThreads(LinuxProcess* process)
{
    for (const pid_t tid : process->Threads)
    {
        processOf_.erase(tid);
    }
    process->Threads.clear();
}

// Without events the list would not hold; threads are asked for as they come then.
void LinuxProcesses::ListThreads(LinuxProcess* process)
{
    if (!eventsComplete_)
    {
        return;
    }
    ForgetThreads(process);
    for (const pid_t tid : proc_.LiveThreads(process->Id))
    {
        AddThread(process, tid);
    }
}

WideString LinuxProcesses::ImageName(const ProcImage& image, const LinuxProcess* parent) const
{
    // The parent keeps the mount in use, so that its id means the same mount still.
    if (parent != nullptr && parent->Image == image)
    {
        return parent->ImageName;
    }
    if (proc_.IsMountHere(image.MountId))
    {
        return naming_(image.Path);
    }
    WideString name = Widen(image.Path);
    std::ranges::replace(name, L'/', L'\\');
    return UnreachableDevice + name;
}

// Whether /proc speaks of that process and not of a later one with its id.
bool LinuxProcesses::IsSame(const LinuxProcess& process, const ProcStat& stat)
{
    return process.StartTicks == stat.StartTicks;
}

LONGLONG LinuxProcesses::TimeOfStart(uint64_t startTicks) const
{
    return systemStart_ + static_cast<LONGLONG>(startTicks) * UnitsPerSecond / sysconf(_SC_CLK_TCK);
}

// Never the same twice, so that each process is younger than its parent, and than the one it replaces by an exec.
LONGLONG LinuxProcesses::NextCreateTime()
{
    lastCreateTime_ = std::max(lastCreateTime_ + 1, SystemTimeNow());
    return lastCreateTime_;
}
}
