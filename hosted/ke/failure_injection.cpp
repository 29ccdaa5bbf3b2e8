#include "hosted/ke/failure_injection.h"

#include <map>
#include <mutex>

namespace hosted
{
namespace
{
enum class Plan
{
    None,
    Nth,
    From,
    Routine
};

struct State
{
    std::mutex Lock;
    Plan Current = Plan::None;
    uint64_t Number = 0;
    bool AndLater = false;
    std::string Routine;
    uint64_t RoutineCalls = 0; // of Routine, since the plan was made
    uint64_t Calls = 0;
    uint64_t Failed = 0;
};

// Never destroyed: threads may still call in while the process ends.
State& Injection()
{
    static State& state = *new State;
    return state;
}

bool Chosen(State& state, const char* routine)
{
    switch (state.Current)
    {
    case Plan::Nth:
        return state.Calls == state.Number;
    case Plan::From:
        return state.Calls >= state.Number;
    case Plan::Routine:
        if (state.Routine != routine)
        {
            return false;
        }
        ++state.RoutineCalls;
        return state.RoutineCalls == state.Number || (state.AndLater && state.RoutineCalls > state.Number);
    case Plan::None:
        break;
    }
    return false;
}

void SetPlan(Plan plan, uint64_t number)
{
    State& state = Injection();
    state.Current = plan;
    state.Number = number;
    state.AndLater = false;
    state.Routine.clear();
    state.RoutineCalls = 0;
}
}

bool InjectFailure(const char* routine)
{
    State& state = Injection();
    std::lock_guard lock(state.Lock);
    ++state.Calls;
    if (!Chosen(state, routine))
    {
        return false;
    }
    ++state.Failed;
    return true;
}

void FailNthCall(uint64_t number)
{
    std::lock_guard lock(Injection().Lock);
    SetPlan(Plan::Nth, number);
}

void FailFromCall(uint64_t number)
{
    std::lock_guard lock(Injection().Lock);
    SetPlan(Plan::From, number);
}

void FailRoutine(const std::string& routine, uint64_t number, bool andLater)
{
    std::lock_guard lock(Injection().Lock);
    SetPlan(Plan::Routine, number);
    Injection().Routine = routine;
    Injection().AndLater = andLater;
}

void ResetFailures()
{
    State& state = Injection();
    std::lock_guard lock(state.Lock);
    SetPlan(Plan::None, 0);
    state.Calls = 0;
    state.Failed = 0;
}

uint64_t FallibleCalls()
{
    std::lock_guard lock(Injection().Lock);
    return Injection().Calls;
}

uint64_t InjectedFailures()
{
    std::lock_guard lock(Injection().Lock);
    return Injection().Failed;
}
}
