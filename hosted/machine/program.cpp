#include "hosted/machine/program.h"

#include "hosted/machine/disk_access.h"
#include "hosted/machine/program_state.h"
#include "hosted/machine/process_create.h"

namespace hosted
{
Program Program::Launch(const ProcessParameters& parameters)
{
    auto state = std::make_shared<ProgramState>();
    state->ImagePath = parameters.ImagePath;
    state->Created = CreateProcess(parameters, &state->Running);
    state->Exited = !NT_SUCCESS(state->Created);
    state->Id = state->Running == nullptr ? nullptr : state->Running->Id;
    RememberProgram(state);
    return Program(std::move(state));
}

NTSTATUS Program::Status() const
{
    return state_->Created;
}

bool Program::IsRunning() const
{
    const std::lock_guard lock(state_->Mutex);
    return !state_->Exited;
}

HANDLE Program::Id() const
{
    return state_->Id;
}

ULONG Program::ProcessId() const
{
    return static_cast<ULONG>(reinterpret_cast<ULONG_PTR>(Id()));
}

Process* Program::Object() const
{
    return RunningProcess(*state_);
}

Program Program::Start(WideView image) const
{
    InstallImage(image);
    ProcessParameters parameters;
    parameters.ImagePath = NtPath(image);
    return Start(parameters);
}

Program Program::Start(const ProcessParameters& parameters) const
{
    return As([&parameters] { return Launch(parameters); });
}

void Program::Exit() const
{
    ExitProgram(*state_);
}

ProgramFile Program::OpenWith(const OpenRequest& request) const
{
    const AttachedProcess attached(Object());
    PFILE_OBJECT file = nullptr;
    ULONG_PTR information = 0;
    const NTSTATUS status = OpenFile(request, &file, &information);
    return ProgramFile(state_, status, information, NT_SUCCESS(status) ? file : nullptr);
}

ProgramFile Program::OpenPath(WideView path, ULONG disposition, ACCESS_MASK access, ULONG options) const
{
    OpenRequest request;
    request.Path = NtPath(path);
    request.DesiredAccess = access;
    request.Disposition = disposition;
    request.Options = FILE_SYNCHRONOUS_IO_NONALERT | options;
    return OpenWith(request);
}

ProgramFile Program::Open(WideView path, ACCESS_MASK access, ULONG options) const
{
    return OpenPath(path, FILE_OPEN, access, options);
}

ProgramFile Program::OpenForReading(WideView path, ULONG options) const
{
    return OpenPath(path, FILE_OPEN, ReadAccess, options);
}

ProgramFile Program::OpenNonCached(WideView path, ACCESS_MASK access) const
{
    return OpenPath(path, FILE_OPEN, access, FILE_NO_INTERMEDIATE_BUFFERING);
}

ProgramFile Program::Create(WideView path, ACCESS_MASK access, ULONG options) const
{
    return OpenPath(path, FILE_OVERWRITE_IF, access, options);
}

ProgramFile Program::OpenOrCreate(WideView path, ACCESS_MASK access, ULONG options) const
{
    return OpenPath(path, FILE_OPEN_IF, access, options);
}

ProgramFile Program::OpenDirectory(WideView path) const
{
    return OpenPath(path, FILE_OPEN, FILE_LIST_DIRECTORY | FILE_READ_ATTRIBUTES | SYNCHRONIZE, FILE_DIRECTORY_FILE);
}

ProgramFile Program::CreateDirectory(WideView path) const
{
    return OpenPath(path, FILE_CREATE, FILE_LIST_DIRECTORY | FILE_READ_ATTRIBUTES | SYNCHRONIZE, FILE_DIRECTORY_FILE);
}

ProgramFile Program::OpenRelative(const ProgramFile& root, WideView name, ULONG disposition, ACCESS_MASK access) const
{
    OpenRequest request;
    request.Path = name;
    request.Root = root.Object();
    request.DesiredAccess = access;
    request.Disposition = disposition;
    return OpenWith(request);
}

ProgramFile Program::OpenById(WideView drive, ULONGLONG fileId, ACCESS_MASK access) const
{
    OpenRequest request;
    request.Path = NtPath(drive);
    request.FileId = fileId;
    request.DesiredAccess = access;
    request.Options |= FILE_OPEN_BY_FILE_ID;
    return OpenWith(request);
}

ProgramEvent Program::CreateEvent(EVENT_TYPE type, ACCESS_MASK granted) const
{
    return ProgramEvent(state_, type, granted);
}
}
