#include "hosted/machine/program_state.h"

#include "hosted/ke/bug_check.h"
#include "hosted/machine/process_create.h"

#include <utility>

namespace hosted
{
namespace
{
std::mutex programsMutex;
std::vector<std::shared_ptr<ProgramState>> programs;

void CloseResources(ProgramState& program)
{
    std::list<std::weak_ptr<ProgramResource>> resources;
    {
        const std::lock_guard lock(program.Mutex);
        resources.swap(program.Resources);
    }
    for (const auto& weak : resources)
    {
        if (const auto resource = weak.lock())
        {
            resource->Close();
        }
    }
}
}

ProgramState::~ProgramState()
{
    ReleaseProgram(*this);
}

void ReleaseProgram(ProgramState& program)
{
    if (program.Running != nullptr)
    {
        DereferenceObject(std::exchange(program.Running, nullptr));
    }
}

Process* RunningProcess(ProgramState& program)
{
    const std::lock_guard lock(program.Mutex);
    if (program.Running == nullptr || program.Exited)
    {
        BugCheck("PROGRAM_NOT_RUNNING", "%s", Narrow(program.ImagePath).c_str());
    }
    return program.Running;
}

void AddResource(ProgramState& program, const std::shared_ptr<ProgramResource>& resource)
{
    const std::lock_guard lock(program.Mutex);
    std::erase_if(program.Resources, [](const auto& weak) { return weak.expired(); });
    program.Resources.push_back(resource);
}

void ExitProgram(ProgramState& program)
{
    {
        const std::lock_guard lock(program.Mutex);
        if (program.Running == nullptr || program.Exited)
        {
            return;
        }
        program.Exited = true;
    }
    ExitProcess(program.Running, [&program] { CloseResources(program); });
}

std::vector<std::shared_ptr<ProgramState>> TakePrograms()
{
    const std::lock_guard lock(programsMutex);
    return std::exchange(programs, {});
}

void RememberProgram(std::shared_ptr<ProgramState> program)
{
    const std::lock_guard lock(programsMutex);
    programs.push_back(std::move(program));
}

WideString NtPath(WideView path)
{
    const bool isNtPath = !path.empty() && path.front() == L'\\';
    return (isNtPath ? WideString() : WideString(L"\\??\\")) + WideString(path);
}
}
