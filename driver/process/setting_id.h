// The identifier manager: numbers for the settings that the agent adds, one number space for all kinds. Numbers of
// deleted settings come back in the order in which they were released and are preferred to fresh ones.
// Its lock may be taken inside a list's lock; the manager calls nothing of the driver while it holds it.
#pragma once

#include "driver/util/list.h"

struct ReleasedIdEntry
{
    LIST_ENTRY Links;
    ULONG Id;
};

// One for the whole driver, in the global state: with that it starts at 0 at each load.
struct IdentifierManager
{
    // Oldest first; each below NextId and at most once.
    LockedList<ReleasedIdEntry> Released;
    ULONG NextId GUARDED_BY(Released.Lock);
};

// At load, before any other routine here. The next fresh number is left as it is.
void IdManInitialize();
// At unload: forgets the released numbers. IRQL up to APC_LEVEL.
void IdManFinalize();
// IRQL up to APC_LEVEL. Cannot fail.
ULONG IssueId();
// Numbers never issued and numbers already released are ignored with success. STATUS_INSUFFICIENT_RESOURCES when
// there is no memory to remember it: the number is then lost for reuse, which does no harm. IRQL up to APC_LEVEL.
NTSTATUS ReleaseId(ULONG id);
