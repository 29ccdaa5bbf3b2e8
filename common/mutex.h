// Locks of user-mode code, as the compiler can check them: fields say which lock guards them, routines which one they
// need, and a guard holds one for a scope.
#pragma once

#include "common/annotations.h"

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <shared_mutex>

namespace common
{
// For one thread at a time. Not recursive.
class LOCK_CAPABILITY("mutex") Mutex
{
public:
    void lock() ACQUIRES_LOCK() { mutex_.lock(); }
    bool try_lock() TRIES_LOCK(true) { return mutex_.try_lock(); }
    void unlock() RELEASES_LOCK() { mutex_.unlock(); }

private:
    std::mutex mutex_;
};

// For many threads at once or for one alone, where those who share are quick and many. Not recursive.
class LOCK_CAPABILITY("shared mutex") SharedMutex
{
public:
    void lock() ACQUIRES_LOCK() { mutex_.lock(); }
    bool try_lock() TRIES_LOCK(true) { return mutex_.try_lock(); }
    void unlock() RELEASES_LOCK() { mutex_.unlock(); }
    void lock_shared() ACQUIRES_SHARED_LOCK() { mutex_.lock_shared(); }
    void unlock_shared() RELEASES_LOCK() { mutex_.unlock_shared(); }

private:
    std::shared_mutex mutex_;
};

// For many threads at once or for one alone. Nobody is passed by those who come later, so that a thread that wants to
// be alone gets its turn however many share. Not recursive, not even for those who share.
class LOCK_CAPABILITY("shared mutex") FairSharedMutex
{
public:
    void lock() ACQUIRES_LOCK()
    {
        std::lock_guard turn(turn_);
        inside_.lock();
    }
    bool try_lock() TRIES_LOCK(true)
    {
        std::unique_lock turn(turn_, std::try_to_lock);
        return turn.owns_lock() && inside_.try_lock();
    }
    void unlock() RELEASES_LOCK() { inside_.unlock(); }
    void lock_shared() ACQUIRES_SHARED_LOCK()
    {
        std::lock_guard turn(turn_);
        inside_.lock_shared();
    }
    void unlock_shared() RELEASES_LOCK() { inside_.unlock_shared(); }

private:
    std::mutex turn_;
    std::shared_mutex inside_;
};

// Holds a lock alone until the end of the scope; may give it back earlier and take it again.
template <class Lockable>
class SCOPED_LOCK Guard
{
public:
    explicit Guard(Lockable& lock) ACQUIRES_LOCK(lock) : lock_(lock) { lock_.lock(); }
    ~Guard() RELEASES_LOCK()
    {
        if (held_)
        {
            lock_.unlock();
        }
    }
    Guard(const Guard&) = delete;
    Guard& operator=(const Guard&) = delete;

    void lock() ACQUIRES_LOCK()
    {
        lock_.lock();
        held_ = true;
    }
    void unlock() RELEASES_LOCK()
    {
        held_ = false;
        lock_.unlock();
    }

private:
    Lockable& lock_;
    bool held_ = true;
};

// Shares a lock until the end of the scope.
template <class Lockable>
class SCOPED_LOCK SharedGuard
{
public:
    explicit SharedGuard(Lockable& lock) ACQUIRES_SHARED_LOCK(lock) : lock_(lock) { lock_.lock_shared(); }
    ~SharedGuard() RELEASES_ANY_LOCK() { lock_.unlock_shared(); }
    SharedGuard(const SharedGuard&) = delete;
    SharedGuard& operator=(const SharedGuard&) = delete;

private:
    Lockable& lock_;
};

// What threads wait for under a lock. The lock is held again when a wait returns, which it may do without reason: wait
// in a loop that looks at what is waited for.
class Condition
{
public:
    template <class Lockable>
    void Wait(Lockable& lock) REQUIRES_LOCK(lock) NO_LOCK_ANALYSIS
    {
        condition_.wait(lock);
    }
    // False when the time came without a notification.
    template <class Lockable, class Clock, class Duration>
    bool WaitUntil(Lockable& lock, std::chrono::time_point<Clock, Duration> time) REQUIRES_LOCK(lock) NO_LOCK_ANALYSIS
    {
        return condition_.wait_until(lock, time) == std::cv_status::no_timeout;
    }
    void NotifyOne() { condition_.notify_one(); }
    void NotifyAll() { condition_.notify_all(); }

private:
    std::condition_variable_any condition_;
};
}
