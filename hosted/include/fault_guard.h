// Termination handlers and guarded access to user memory; the Windows build has a mirror of this header.
#pragma once

#include <ntifs.h>

namespace hosted
{
NTSTATUS GuardedCall(void (*body)(void* context), void* context);
bool InGuardedCall();
[[noreturn]] void RaiseStatus(NTSTATUS status);
}

// Runs body() and returns STATUS_SUCCESS, or the status of the memory fault that ended it, where a guard page counts as
// STATUS_ACCESS_VIOLATION. Only user memory may be
// touched in the body. It may own nothing that needs destruction; locks only through WithTermination.
template <class Body>
inline NTSTATUS TryAccess(Body&& body)
{
    auto* address = &body;
    const NTSTATUS status =
        hosted::GuardedCall([](void* context) { (**static_cast<decltype(address)*>(context))(); }, &address);
    return status == STATUS_GUARD_PAGE_VIOLATION ? STATUS_ACCESS_VIOLATION : status;
}

// Runs body(), then cleanup(): exactly once on every way out, also when a memory fault at a user address leaves the
// body for a surrounding TryAccess. Locks: none of its own.
template <class Body, class Cleanup>
inline void WithTermination(Body&& body, Cleanup&& cleanup)
{
    // Nothing unwinds but guarded access. The fault is caught here, while the frame that cleanup() refers to still
    // stands, and raised again for whoever is further out.
    if (!hosted::InGuardedCall())
    {
        body();
        cleanup();
        return;
    }
    const NTSTATUS status = TryAccess(body);
    cleanup();
    if (!NT_SUCCESS(status))
    {
        hosted::RaiseStatus(status);
    }
}
