// The device-control requests that are inside the driver: unload takes away what they work on, and waits for them.
// The system does not: it lets a filter go while a program has the control device open, and even in mid-request.
#pragma once

#include <ntifs.h>

// Requests may come from now on. Before the control device is made. IRQL PASSIVE_LEVEL.
void OpenRequestGate();
// No request begins any more; returns when the last one has ended. IRQL PASSIVE_LEVEL, and not inside a request.
void CloseRequestGate();

// False when the gate is closed. A request that began must end. IRQL up to DISPATCH_LEVEL.
bool BeginRequest();
void EndRequest();
