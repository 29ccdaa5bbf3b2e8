#include "tests/unit/live/processes/fake_proc.h"

#include <filesystem>
#include <fstream>
#include <sstream>

namespace fs = std::filesystem;

namespace
{
std::string Read(const std::string& path)
{
    return (std::ostringstream() << std::ifstream(path).rdbuf()).str();
}

void Link(const std::string& target, const std::string& link)
{
    fs::remove(link);
    fs::create_symlink(target, link);
}
}

FakeProc::FakeProc()
{
    fs::create_directories(Path() + "/self/ns");
    SetMounts(Read("/proc/self/mountinfo"));
    SetPidNamespace("pid:[4026531836]");
    Link("user:[4026531837]", Path() + "/self/ns/user");
}

std::string FakeProc::Executable(const std::string& name) const
{
    const std::string path = folder_.Path(name);
    std::ofstream(path) << name;
    return fs::canonical(path);
}

void FakeProc::PutThread(const std::string& folder, const FakeProcess& process) const
{
    fs::create_directories(folder);
    std::ofstream(folder + "/stat") << process.Id << " (" << process.Name << ") " << process.State << ' '
                                    << process.Parent << " 1 1 0 -1 " << (process.Kernel ? 0x00208040 : 0x00400000)
                                    << " 0 0 0 0 0 0 0 0 20 0 1 0 " << process.StartTicks
                                    << " 1000 100 18446744073709551615 1 2 " << process.StackStart << " 0 0\n";
}

void FakeProc::Put(const FakeProcess& process) const
{
    const std::string folder = Path() + '/' + std::to_string(process.Id);
    Remove(process.Id);
    fs::create_directories(folder + "/ns");
    Link("user:[4026531837]", folder + "/ns/user");
    PutThread(folder, process);
    PutThread(folder + "/task/" + std::to_string(process.Id), process);
    std::ofstream(folder + "/status") << "Name:\tname\nTgid:\t" << process.Id << "\n";
    if (!process.Image.empty())
    {
        Link(process.Image, folder + "/exe");
    }
    for (const pid_t tid : process.OtherThreads)
    {
        FakeProcess thread = process;
        thread.State = 'S';
        PutThread(folder + "/task/" + std::to_string(tid), thread);
        if (!process.Image.empty())
        {
            Link(process.Image, folder + "/task/" + std::to_string(tid) + "/exe");
        }
        // Reachable by its id as well, but not listed as a process.
        fs::create_directories(Path() + '/' + std::to_string(tid));
        std::ofstream(Path() + '/' + std::to_string(tid) + "/status") << "Name:\tname\nTgid:\t" << process.Id << "\n";
    }
}

void FakeProc::Remove(pid_t pid) const
{
    fs::remove_all(Path() + '/' + std::to_string(pid));
}

void FakeProc::SetPidNamespace(const std::string& name) const
{
    Link(name, Path() + "/self/ns/pid");
}

void FakeProc::SetMounts(const std::string& text) const
{
    std::ofstream(Path() + "/self/mountinfo") << text;
}
