#include "hosted/machine/program_event.h"

#include "hosted/ke/event.h"
#include "hosted/machine/program_state.h"
#include "hosted/ob/object.h"

#include <atomic>

namespace hosted
{
struct ProgramEvent::State
{
    std::shared_ptr<ProgramState> Owner;
    PKEVENT Event; // referenced
    HANDLE Handle;
    std::atomic<bool> Open{true};

    void Close()
    {
        // A program that has exited has no handles left.
        bool exited;
        {
            const std::lock_guard lock(Owner->Mutex);
            exited = Owner->Exited;
        }
        if (Open.exchange(false) && !exited)
        {
            Owner->Running->Handles.Close(Handle);
        }
    }

    ~State()
    {
        Close();
        DereferenceObject(Event);
    }
};

ProgramEvent::ProgramEvent(std::shared_ptr<ProgramState> owner, EVENT_TYPE type, ACCESS_MASK granted)
    : state_(std::make_shared<State>())
{
    Process* process = RunningProcess(*owner);
    state_->Owner = std::move(owner);
    state_->Event = static_cast<PKEVENT>(CreateObject(EventType, sizeof(KEVENT)));
    KeInitializeEvent(state_->Event, type, FALSE);
    state_->Handle = process->Handles.Insert(state_->Event, granted);
}

HANDLE ProgramEvent::Handle() const
{
    return state_->Handle;
}

PKEVENT ProgramEvent::Object() const
{
    return state_->Event;
}

bool ProgramEvent::IsSet() const
{
    return IsSignalled(state_->Event);
}

void ProgramEvent::Clear()
{
    ClearEvent(state_->Event);
}

bool ProgramEvent::Wait(unsigned milliseconds)
{
    return WaitForEvent(state_->Event, milliseconds);
}

void ProgramEvent::CloseHandle()
{
    state_->Close();
}
}
