// The registered routines that hear of processes coming and going.
#pragma once

#include "hosted/ps/process.h"

namespace hosted
{
// Calls every registered routine, in order of registration, on the calling thread at PASSIVE_LEVEL. A routine that
// returns at another level is a bug check.
void NotifyProcessCreated(Process* process, PS_CREATE_NOTIFY_INFO& information);
void NotifyProcessExited(Process* process);

// Whether the loaded driver image asks for integrity checks; without that, registration is refused with
// STATUS_ACCESS_DENIED. True at first.
void SetImageForcesIntegrity(bool forces);

// For checks at the end of a run.
size_t RegisteredNotifyRoutines();
// Drops what was left registered and allows registration again.
void ResetNotifyRoutines();
}
