// Programs that run under a tracker's eyes, with the connector and without (the parameter).
#pragma once

#include "live/processes/process_tracker.h"

#include "hosted/ps/process_table.h"
#include "tests/support/temporary_folder.h"
#include "tests/unit/live/processes/process_actor.h"
#include "tests/unit/live/processes/process_notes.h"

#include <gmock/gmock.h>

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <memory>
#include <thread>

namespace tracker_test
{
using namespace hosted;

constexpr WCHAR Device[] = L"\\Device\\HarddiskVolume1";
constexpr int Never = 1'000'000'000; // ms

inline WideString NameOf(const std::string& path)
{
    WideString name = Device + Widen(path);
    std::ranges::replace(name, L'/', L'\\');
    return name;
}

inline std::string Created(const std::string& path)
{
    return "+ " + Narrow(NameOf(path));
}

inline HANDLE Id(pid_t pid)
{
    return reinterpret_cast<HANDLE>(static_cast<ULONG_PTR>(pid));
}

// Owns the reference.
struct Held
{
    explicit Held(Process* process) : Object(process) {}
    ~Held()
    {
        if (Object != nullptr)
        {
            DereferenceObject(Object);
        }
    }
    Held(const Held&) = delete;
    Held& operator=(const Held&) = delete;

    HANDLE Id() const { return Object == nullptr ? nullptr : Object->Id; }
    std::string Image() const { return Object == nullptr ? "" : Narrow(Object->ImageNtPath); }
    Process* const Object;
};

// What has to come about by itself, as soon as the kernel gets to it.
template <class Condition>
bool Eventually(Condition&& condition)
{
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (!condition())
    {
        if (std::chrono::steady_clock::now() > end)
        {
            return false;
        }
        std::this_thread::yield();
    }
    return true;
}

class TrackerFixture : public testing::TestWithParam<bool>
{
protected:
    void SetUp() override
    {
        tracker_ = Track({.UseConnector = GetParam()});
        if (GetParam() && !tracker_->ConnectorInUse())
        {
            GTEST_SKIP() << "the process connector is not to be had here";
        }
    }

    // The routine stays registered while the tracker ends.
    void TearDown() override { tracker_.reset(); }

    static std::unique_ptr<ProcessTracker> Track(TrackerOptions options)
    {
        options.ImageName = NameOf;
        options.ScanMilliseconds = Never;
        return std::make_unique<ProcessTracker>(std::move(options));
    }

    std::string Copy(const std::string& name)
    {
        const std::string path = std::filesystem::canonical(folder_.Path("")).string() + '/' + name;
        std::filesystem::copy_file(actor_, path);
        return path;
    }

    bool SeesExit(pid_t pid)
    {
        return Eventually(
            [&]
            {
                tracker_->BringUpToDate();
                return notes_.HasExited(pid);
            });
    }

    const std::string actor_ = std::filesystem::canonical(TARNVEIL_PROCESS_ACTOR);
    const std::string self_ = std::filesystem::canonical("/proc/self/exe");
    TemporaryFolder folder_;
    Machine machine_;
    ProcessNotes notes_;
    std::unique_ptr<ProcessTracker> tracker_;
};
}
