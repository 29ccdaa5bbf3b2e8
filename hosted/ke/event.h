// Events seen from the host's side: what a program that waits for one does.
#pragma once

#include <ntifs.h>

namespace host
{
bool IsSignalled(PKEVENT event);

// Waits until the event is signalled, at most so long; true when it was. A synchronization event is reset by the
// wait that it ends, and ends one wait only. A timeout of 0 only looks.
bool WaitForEvent(PKEVENT event, unsigned timeoutMilliseconds);

void ClearEvent(PKEVENT event);

// Bug check unless KeInitializeEvent made this event and it was not moved since.
void RequireEvent(const KEVENT* event, const char* routine);
}
