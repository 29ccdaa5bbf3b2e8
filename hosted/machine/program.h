// A running program: its files, its events, its requests to the driver.
#pragma once

#include "hosted/io/file.h"
#include "hosted/machine/control_client.h"
#include "hosted/machine/open_file.h"
#include "hosted/ps/process.h"

namespace hosted
{
struct ProcessParameters;

// Copies stand for the same program. It runs until Exit or the end of the machine, not until the last copy goes.
// Paths are DOS paths ("C:\Sandbox\plan.txt", "C:\a.txt:stream") or NT paths.
class Program : public ControlClient
{
public:
    static constexpr ACCESS_MASK ReadWriteAccess =
        FILE_READ_DATA | FILE_WRITE_DATA | FILE_READ_ATTRIBUTES | FILE_WRITE_ATTRIBUTES | DELETE | SYNCHRONIZE;
    static constexpr ACCESS_MASK ReadAccess = FILE_READ_DATA | FILE_READ_ATTRIBUTES | SYNCHRONIZE;

    explicit Program(std::shared_ptr<ProgramState> state) : ControlClient(std::move(state)) {}
    // Starts one as a child of the process that the calling thread plays.
    static Program Launch(const ProcessParameters& parameters);

    // How the creation ended; everything below but Exit needs a success.
    NTSTATUS Status() const;
    bool IsRunning() const;
    HANDLE Id() const;
    ULONG ProcessId() const;
    Process* Object() const;

    // A child of this program; the image is installed when it is missing.
    Program Start(WideView image) const;
    // With everything said: the id, another parent, the form of the image's name.
    Program Start(const ProcessParameters& parameters) const;
    void Exit() const;

    // An existing file.
    ProgramFile Open(WideView path, ACCESS_MASK access = ReadWriteAccess, ULONG options = 0) const;
    ProgramFile OpenForReading(WideView path, ULONG options = 0) const;
    // Without intermediate buffering: offsets and lengths in whole sectors.
    ProgramFile OpenNonCached(WideView path, ACCESS_MASK access = ReadWriteAccess) const;
    // A new file, or an empty one in place of an old.
    ProgramFile Create(WideView path, ACCESS_MASK access = ReadWriteAccess, ULONG options = 0) const;
    // The old file, or a new one.
    ProgramFile OpenOrCreate(WideView path, ACCESS_MASK access = ReadWriteAccess, ULONG options = 0) const;
    ProgramFile OpenDirectory(WideView path) const;
    ProgramFile CreateDirectory(WideView path) const;
    // `name` without a leading backslash, below an open directory (or ":stream" of an open file).
    ProgramFile OpenRelative(const ProgramFile& root, WideView name, ULONG disposition = FILE_OPEN,
        ACCESS_MASK access = ReadWriteAccess) const;
    // On the volume of that drive, "C:".
    ProgramFile OpenById(WideView drive, ULONGLONG fileId, ACCESS_MASK access = ReadWriteAccess) const;
    // Exactly this request; its path is an NT path.
    ProgramFile OpenWith(const OpenRequest& request) const;

    ProgramEvent CreateEvent(EVENT_TYPE type = SynchronizationEvent, ACCESS_MASK granted = EVENT_ALL_ACCESS) const;

    // Whatever the caller does in body() is done by this program.
    template <class Body>
    auto As(Body&& body) const
    {
        const AttachedProcess attached(Object());
        return body();
    }

private:
    ProgramFile OpenPath(WideView path, ULONG disposition, ACCESS_MASK access, ULONG options) const;
};
}
