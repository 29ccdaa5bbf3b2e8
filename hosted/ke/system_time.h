// The modelled system's clock. It stands still until it is moved, so that runs repeat exactly.
#pragma once

#include <ntifs.h>

namespace hosted
{
// Where the clock stands after ResetSystemTime and at first: 2024-01-01 00:00:00 UTC.
inline constexpr LONGLONG InitialSystemTime = 133485408000000000;

// UTC in units of 100 ns since 1601.
LONGLONG SystemTime();
void SetSystemTime(LONGLONG time);
// Moves the clock by so many units of 100 ns; backwards too.
void AdvanceSystemTime(LONGLONG interval);
void ResetSystemTime();
}
