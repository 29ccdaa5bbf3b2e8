// Rules about fast mutexes that are checked while the driver runs.
#pragma once

#include <ntifs.h>

namespace hosted
{
// How many the calling thread holds.
int FastMutexesHeld();

// At most one fast mutex may be held by a thread, except that the mutexes named here may be taken inside one other;
// nothing may be taken inside them.
void AllowInnermost(PFAST_MUTEX mutex);
// For a driver whose symbols are not at hand: the first mutex that is taken inside another becomes the one innermost
// mutex, and from then on the rule above holds for it.
void LearnInnermost();
// Back to no exceptions; at the start of a machine, whose mutexes stand elsewhere.
void ResetInnermost();

// Whether the calling thread holds a fast mutex that stands within these bytes.
bool HoldsFastMutexIn(const void* begin, SIZE_T bytes);
}
