// Fast mutexes. A lock is only ever held through WithLock, so a fault that unwinds through the body releases it.
//
// Lock order: every list lock, the log channel's lock and the flags' locks are leaves; the one exception is the
// identifier manager's lock, which may be taken inside a list's lock and takes none inside itself.
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

// Runs body() with the lock held. IRQL up to APC_LEVEL; the body runs at APC_LEVEL.
template <class Body>
inline void WithLock(FastLock& lock, Body&& body) NO_LOCK_ANALYSIS
{
    ExAcquireFastMutex(&lock.Mutex);
    WithTermination([&body]() NO_LOCK_ANALYSIS { body(); }, [&lock] { ExReleaseFastMutex(&lock.Mutex); });
}

// As WithLock, but above APC_LEVEL, where a fast mutex cannot be taken, the body runs without the lock.
template <class Body>
inline void WithLockBelowDispatch(FastLock& lock, Body&& body) NO_LOCK_ANALYSIS
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
