// Work that a system does from time to time by itself.
#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>

namespace live
{
// On a thread of its own, from the constructor to the destructor, which waits for a run under way.
class RepeatedTask
{
public:
    RepeatedTask(std::chrono::milliseconds interval, std::function<void()> work)
        : thread_(
              [this, interval, work = std::move(work)]
              {
                  std::unique_lock lock(mutex_);
                  while (!wake_.wait_for(lock, interval, [this] { return ending_; }))
                  {
                      lock.unlock();
                      work();
                      lock.lock();
                  }
              })
    {
    }
    ~RepeatedTask()
    {
        {
            const std::lock_guard guard(mutex_);
            ending_ = true;
        }
        wake_.notify_all();
        thread_.join();
    }
    RepeatedTask(const RepeatedTask&) = delete;
    RepeatedTask& operator=(const RepeatedTask&) = delete;

private:
    std::mutex mutex_;
    std::condition_variable wake_;
    bool ending_ = false; // guarded by mutex_
    std::thread thread_;  // the last, since it uses the others
};
}
