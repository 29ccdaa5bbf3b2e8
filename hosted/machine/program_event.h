// An event that a program made, known to the system by its handle.
#pragma once

#include <ntifs.h>

#include <memory>

namespace hosted
{
struct ProgramState;

// Copies share one event. The handle closes when the last copy goes or the program exits.
class ProgramEvent
{
public:
    ProgramEvent(std::shared_ptr<ProgramState> owner, EVENT_TYPE type, ACCESS_MASK granted);

    HANDLE Handle() const;
    PKEVENT Object() const;
    bool IsSet() const;
    void Clear();
    // True when the event was signalled within that time; a wait ends a synchronization event's signal.
    bool Wait(unsigned milliseconds = 10000);
    void CloseHandle();

private:
    struct State;
    std::shared_ptr<State> state_;
};
}
