// Fast mutexes. A lock is only ever held through WithLock, so a fault that unwinds through the body releases it.
//
// Lock order: while a list's lock is held, the identifier manager's may be taken, and no other. That one, the log
// channel's, the name cache's, the flags' and the create decision's are leaves: nothing is taken inside them.
//
// The body is a lambda that requires the very lock that is taken, written alike in both places, so that the compiler
// checks what the body touches, and a test of the source that the two are the same:
//     WithLock(list.Lock, [&]() REQUIRES_LOCK(list.Lock) { ... });
#pragma once

#include "driver/util/annotations.h"

#include <fault_guard.h>
#include <ntifs.h>

class LOCK_CAPABILITY("fast mutex") FastLock
{
public:
    // Any IRQL up to DISPATCH_LEVEL; once, before anybody can take the lock.
    void Initialize() { ExInitializeFastMutex(&Mutex); }

    FAST_MUTEX Mutex;
};

// Runs body() with the lock held, which the caller does not hold yet: fast mutexes do not nest. IRQL up to APC_LEVEL;
// the body runs at APC_LEVEL.
template <class Body>
inline void WithLock(FastLock& lock, Body&& body) EXCLUDES_LOCK(lock) NO_LOCK_ANALYSIS
{
    ExAcquireFastMutex(&lock.Mutex);
    WithTermination([&body]() NO_LOCK_ANALYSIS { body(); }, [&lock] { ExReleaseFastMutex(&lock.Mutex); });
}

// As WithLock, but above APC_LEVEL, where a fast mutex cannot be taken, the body runs without the lock and at the
// caller's IRQL.
template <class Body>
inline void WithLockBelowDispatch(FastLock& lock, Body&& body) EXCLUDES_LOCK(lock) NO_LOCK_ANALYSIS
{
    if (KeGetCurrentIrql() < DISPATCH_LEVEL)
    {
        WithLock(lock, body);
    }
    else
    {
        body();
    }
}
