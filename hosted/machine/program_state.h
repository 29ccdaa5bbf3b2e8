// What the parts of a program share: inside the machine only.
#pragma once

#include "hosted/machine/user_buffers.h"
#include "hosted/ps/process.h"

#include <list>

namespace hosted
{
// Something that a program has and the system takes away when it exits.
class ProgramResource
{
public:
    virtual ~ProgramResource() = default;
    // Gives it back, as the program. Again and again without effect.
    virtual void Close() = 0;
};

struct ProgramState
{
    Process* Running = nullptr; // referenced; null when the creation failed, and once the machine is down
    HANDLE Id = nullptr;
    NTSTATUS Created = STATUS_SUCCESS;
    WideString ImagePath;
    UserBuffers Buffers;

    std::mutex Mutex;
    bool Exited = false;                                 // guarded by Mutex
    std::list<std::weak_ptr<ProgramResource>> Resources; // guarded by Mutex

    ProgramState() = default;
    ~ProgramState();
    ProgramState(const ProgramState&) = delete;
    ProgramState& operator=(const ProgramState&) = delete;
};

// The running process; bug check when the program was never started or has exited.
Process* RunningProcess(ProgramState& program);
// What is to be closed when the program exits.
void AddResource(ProgramState& program, const std::shared_ptr<ProgramResource>& resource);
// Ends the program; nothing happens when it has ended or never ran.
void ExitProgram(ProgramState& program);
// Gives up the process object of a program that has ended.
void ReleaseProgram(ProgramState& program);

// Every program started since the last call, in order; the machine ends those that still run.
std::vector<std::shared_ptr<ProgramState>> TakePrograms();
void RememberProgram(std::shared_ptr<ProgramState> program);

// "C:\a" as the system knows it, "\??\C:\a"; a path that begins with a backslash is taken as it is.
WideString NtPath(WideView path);
}
