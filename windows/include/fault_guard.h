#pragma once

#include <ntifs.h>

// Structured exception handling behind two routines, so that driver/ itself needs no compiler extension.
// hosted/include/fault_guard.h offers the same two natively.
//
// The compiler attaches a handler to calls only, never to a load or store that stands in the guarded block itself.
// Both routines therefore reach the body through a call that is never inlined: whatever the optimiser merges into
// that callee, a fault there unwinds through the call.

namespace fault_guard
{

// The one call that a handler covers. The empty assembly keeps the optimiser from proving anything about the callee,
// in particular that calling it could be left out or moved past its neighbours.
// Locks are not analysed here: the body carries its own requirement, which holds at the outer call.
template <class Body>
__attribute__((noinline, no_thread_safety_analysis)) void Call(Body& body)
{
    __asm__ __volatile__("" : : : "memory");
    body();
    __asm__ __volatile__("" : : : "memory");
}

// What a filter answers for an exception code: memory faults are handled, everything else goes on searching.
constexpr int FilterMemoryFault(NTSTATUS code)
{
    switch (code)
    {
    case STATUS_ACCESS_VIOLATION:
    case STATUS_DATATYPE_MISALIGNMENT:
    case STATUS_IN_PAGE_ERROR:
    case STATUS_GUARD_PAGE_VIOLATION:
        return EXCEPTION_EXECUTE_HANDLER;
    default:
        return EXCEPTION_CONTINUE_SEARCH;
    }
}

// A program may set a guard on its pages at any moment, which is only a warning to itself.
constexpr NTSTATUS StatusOfFault(NTSTATUS code)
{
    return code == STATUS_GUARD_PAGE_VIOLATION ? STATUS_ACCESS_VIOLATION : code;
}

}

// Runs body(), then cleanup(): exactly once on every way out, also when a fault unwinds through the body to a
// handler further out. The fault then goes on unwinding after cleanup() returns.
// Both are callables without parameters whose result is ignored; captures may refer to the caller's locals.
// IRQL: that of body and cleanup; none of its own. Locks: none of its own.
template <class Body, class Cleanup>
__attribute__((no_thread_safety_analysis)) void WithTermination(Body&& body, Cleanup&& cleanup)
{
    __try
    {
        fault_guard::Call(body);
    }
    __finally
    {
        cleanup();
    }
}

// Runs body() and returns STATUS_SUCCESS, or the code of the memory fault that ended it (STATUS_ACCESS_VIOLATION,
// STATUS_DATATYPE_MISALIGNMENT, STATUS_IN_PAGE_ERROR; a guard page counts as the first). Other exceptions go on to an
// outer handler.
// The body must touch nothing but the memory in doubt: only user-mode addresses raise a fault that can be handled,
// and what it did before the fault stays done. Locks that it takes must be held through WithTermination.
// IRQL <= APC_LEVEL, since paging in may wait.
template <class Body>
__attribute__((no_thread_safety_analysis)) NTSTATUS TryAccess(Body&& body)
{
    NTSTATUS status = STATUS_SUCCESS;
    __try
    {
        fault_guard::Call(body);
    }
    __except (fault_guard::FilterMemoryFault(static_cast<NTSTATUS>(GetExceptionCode())))
    {
        status = fault_guard::StatusOfFault(static_cast<NTSTATUS>(GetExceptionCode()));
    }
    return status;
}
