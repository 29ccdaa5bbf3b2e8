// Threads that work until the time is up, each with random numbers of its own that come from one printed seed.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <iostream>
#include <random>
#include <string>
#include <thread>
#include <vector>

namespace stress_test
{
inline uint64_t FromEnvironment(const char* name, uint64_t otherwise)
{
    const char* text = std::getenv(name);
    return text == nullptr ? otherwise : std::strtoull(text, nullptr, 0);
}

class Random
{
public:
    explicit Random(uint64_t seed) : engine_(seed) {}
    // 0 for a limit of 0.
    size_t Below(size_t limit) { return limit == 0 ? 0 : engine_() % limit; }
    bool OneIn(size_t chances) { return Below(chances) == 0; }
    std::string Bytes(size_t length)
    {
        std::string bytes(length, '\0');
        // Zero blocks have a meaning of their own on the disk.
        for (size_t i = 0; !OneIn(8) && i < length; ++i)
        {
            bytes[i] = static_cast<char>(engine_());
        }
        return bytes;
    }

private:
    std::mt19937_64 engine_;
};

// One round of a worker's work. Called again and again on one thread.
using Round = std::function<void()>;

class StressRun
{
public:
    StressRun()
        : seed_(FromEnvironment("TARNVEIL_STRESS_SEED", std::random_device()())),
          seconds_(FromEnvironment("TARNVEIL_STRESS_SECONDS", 4))
    {
        const testing::TestInfo* test = testing::UnitTest::GetInstance()->current_test_info();
        std::cout << "replay: TARNVEIL_STRESS_SEED=" << seed_ << " TARNVEIL_STRESS_SECONDS=" << seconds_
                  << " stress_tests --gtest_filter=" << test->test_suite_name() << '.' << test->name() << std::endl;
    }

    // `make` is called on the worker's own thread, and what it makes is destroyed there.
    void Add(const char* name, std::function<Round(Random&)> make) { workers_.push_back({name, std::move(make)}); }

    // Starts all workers at once and comes back when they have ended, after the time or the first failure. Every worker
    // does one round at least.
    void Run()
    {
        const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds_);
        std::vector<std::atomic<uint64_t>> rounds(workers_.size());
        std::vector<std::thread> threads;
        for (size_t i = 0; i < workers_.size(); ++i)
        {
            threads.emplace_back(
                [&, i]
                {
                    Random random(seed_ * 1000 + i);
                    const Round round = workers_[i].Make(random);
                    do
                    {
                        round();
                        ++rounds[i];
                    } while (std::chrono::steady_clock::now() < end && !testing::Test::HasFailure());
                });
        }
        for (std::thread& thread : threads)
        {
            thread.join();
        }
        for (size_t i = 0; i < workers_.size(); ++i)
        {
            std::cout << "  " << workers_[i].Name << ": " << rounds[i] << " rounds" << std::endl;
        }
    }

private:
    struct Worker
    {
        const char* Name;
        std::function<Round(Random&)> Make;
    };
    const uint64_t seed_;
    const uint64_t seconds_;
    std::vector<Worker> workers_;
};
}
