// Events seen from outside the kernel: what a program that waits for one does.
#pragma once

#include <ntifs.h>

namespace hosted
{
bool IsSignalled(PKEVENT event);

// Waits until the event is signalled, at most so long; true when it was. A synchronization event is reset by the
// wait that it ends, and ends one wait only. A timeout of 0 only looks.
bool WaitForEvent(PKEVENT event, unsigned timeoutMilliseconds);

void ClearEvent(PKEVENT event);

// While it lives, each signal of the event also adds 1 to an eventfd(2), so that a thread can wait for the event and
// for descriptors at once. Descriptor and event outlive it; a signal from before it is for WaitForEvent to see.
class EventObserver
{
public:
    EventObserver(PKEVENT event, int descriptor);
    ~EventObserver();
    EventObserver(const EventObserver&) = delete;
    EventObserver& operator=(const EventObserver&) = delete;

private:
    const PKEVENT event_;
    const int descriptor_;
};

// Bug check unless KeInitializeEvent made this event and it was not moved since.
void RequireEvent(const KEVENT* event, const char* routine);
}
