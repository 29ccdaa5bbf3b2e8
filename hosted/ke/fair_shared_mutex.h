// A lock for many at once or for one alone.
#pragma once

#include <mutex>
#include <shared_mutex>

namespace hosted
{
// Nobody is passed by those who come later, so that one who wants to be alone gets his turn however many share. For
// std::lock_guard, std::unique_lock and std::shared_lock. Not recursive, not even for those who share.
class FairSharedMutex
{
public:
    void lock()
    {
        std::lock_guard turn(turn_);
        inside_.lock();
    }
    bool try_lock()
    {
        std::unique_lock turn(turn_, std::try_to_lock);
        return turn.owns_lock() && inside_.try_lock();
    }
    void unlock() { inside_.unlock(); }
    void lock_shared()
    {
        std::lock_guard turn(turn_);
        inside_.lock_shared();
    }
    void unlock_shared() { inside_.unlock_shared(); }

private:
    std::mutex turn_;
    std::shared_mutex inside_;
};
}
