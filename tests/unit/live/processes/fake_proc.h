// A folder that looks like /proc, for processes that no test can have: chosen ids, ids that are used again.
#pragma once

#include "tests/support/temporary_folder.h"

#include <sys/types.h>

#include <string>
#include <vector>

struct FakeProcess
{
    pid_t Id;
    pid_t Parent = 0;
    std::string Image = {}; // a file that exists; none when it may not be read
    unsigned long long StartTicks = 0;
    unsigned long long StackStart = 0x7ffc0000;
    char State = 'S';
    bool Kernel = false;
    std::string Name = "name";
    std::vector<pid_t> OtherThreads = {};
};

class FakeProc
{
public:
    FakeProc();

    std::string Path() const { return folder_.Path("proc"); }
    // An executable with that name; its path.
    std::string Executable(const std::string& name) const;
    // In place of what was there with the same id.
    void Put(const FakeProcess& process) const;
    void Remove(pid_t pid) const;
    void SetPidNamespace(const std::string& name) const;
    void SetMounts(const std::string& text) const;

private:
    void PutThread(const std::string& folder, const FakeProcess& process) const;

    TemporaryFolder folder_;
};
