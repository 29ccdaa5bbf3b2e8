// Termination handlers and guarded access to user memory; the Windows build has a mirror of this header.
#pragma once

#include <ntifs.h>

namespace host
{
NTSTATUS GuardedCall(void (*body)(void* context), void* context);
}

// Runs body(), then cleanup(). Nothing unwinds through kernel code natively but guarded access, whose bodies hold
// no termination handlers, so the order is all there is to keep.
template <class Body, class Cleanup>
inline void WithTermination(Body&& body, Cleanup&& cleanup)
{
    body();
    cleanup();
}

// Runs body() and returns STATUS_SUCCESS, or the status of the memory fault that ended it. Only user memory may be
// touched in the body, and the body must own nothing.
template <class Body>
inline NTSTATUS TryAccess(Body&& body)
{
    auto* address = &body;
    return host::GuardedCall([](void* context) { (**static_cast<decltype(address)*>(context))(); }, &address);
}
