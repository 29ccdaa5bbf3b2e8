// The one place that decides whether a call that can fail on Windows fails here.
#pragma once

#include <cstdint>
#include <string>

namespace hosted
{
// Asked first by every exported routine that can fail. True: fail in the usual way. Counts the call.
bool InjectFailure(const char* routine);

// Calls are numbered from 1, counted since the last reset, over all threads. Every setting replaces the one before.
void FailNthCall(uint64_t number);
void FailFromCall(uint64_t number);
// The `number`th call (from 1) of the routine of that name; with `andLater` every one from there on.
void FailRoutine(const std::string& routine, uint64_t number = 1, bool andLater = false);
// No more failures; the count starts again at zero.
void ResetFailures();
uint64_t FallibleCalls();
// How many calls were failed since the last reset.
uint64_t InjectedFailures();
}
