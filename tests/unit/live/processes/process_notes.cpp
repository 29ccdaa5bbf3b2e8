#include "tests/unit/live/processes/process_notes.h"

#include <gtest/gtest.h>

#include <mutex>

using namespace hosted;

namespace
{
std::mutex notesMutex;
std::vector<ProcessNote> notes;
std::function<void(pid_t, bool)> during;

pid_t AsPid(HANDLE id)
{
    return static_cast<pid_t>(reinterpret_cast<ULONG_PTR>(id));
}

void NTAPI Note(PEPROCESS process, HANDLE id, PPS_CREATE_NOTIFY_INFO information)
{
    std::function<void(pid_t, bool)> hook;
    {
        const std::lock_guard lock(notesMutex);
        hook = during;
    }
    if (hook)
    {
        hook(AsPid(id), information == nullptr);
    }
    ProcessNote note{};
    note.Id = AsPid(id);
    note.Exit = information == nullptr;
    note.On = AsPid(PsGetCurrentProcessId());
    note.CreateTime = FromProcess(process)->CreateTime;
    if (information != nullptr)
    {
        note.Parent = AsPid(information->ParentProcessId);
        note.Image = Narrow(View(*information->ImageFileName));
        note.FileName = information->FileObject == nullptr ? "none" : Narrow(View(information->FileObject->FileName));
        EXPECT_EQ(information->FileObject == nullptr, information->IsSubsystemProcess == 1);
        EXPECT_EQ(0u, information->FileOpenNameAvailable);
        EXPECT_EQ(nullptr, information->CommandLine);
    }
    const std::lock_guard lock(notesMutex);
    notes.push_back(std::move(note));
}
}

ProcessNotes::ProcessNotes()
{
    notes.clear();
    during = {};
    EXPECT_EQ(STATUS_SUCCESS, PsSetCreateProcessNotifyRoutineEx(Note, FALSE));
}

ProcessNotes::~ProcessNotes()
{
    EXPECT_EQ(STATUS_SUCCESS, PsSetCreateProcessNotifyRoutineEx(Note, TRUE));
}

std::vector<ProcessNote> ProcessNotes::All() const
{
    const std::lock_guard lock(notesMutex);
    return notes;
}

std::vector<ProcessNote> ProcessNotes::Of(pid_t pid) const
{
    std::vector<ProcessNote> own = All();
    std::erase_if(own, [pid](const ProcessNote& note) { return note.Id != pid; });
    return own;
}

std::vector<std::string> ProcessNotes::TextsOf(pid_t pid) const
{
    std::vector<std::string> texts;
    for (const ProcessNote& note : Of(pid))
    {
        texts.push_back(note.Text());
    }
    return texts;
}

bool ProcessNotes::HasExited(pid_t pid) const
{
    const auto own = Of(pid);
    return !own.empty() && own.back().Exit;
}

void ProcessNotes::SetDuring(std::function<void(pid_t, bool)> hook)
{
    const std::lock_guard lock(notesMutex);
    during = std::move(hook);
}
