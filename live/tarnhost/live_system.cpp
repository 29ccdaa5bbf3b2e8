#include "live/tarnhost/live_system.h"

#include "hosted/cc/cache.h"
#include "hosted/fs/folder/folder_volume.h"
#include "hosted/fs/linux_files.h"
#include "hosted/ke/system_time.h"
#include "hosted/ldr/loaded_image.h"
#include "live/control/control_server.h"
#include "live/control/registry_file.h"
#include "live/tarnhost/log.h"
#include "live/mount/live_mount.h"
#include "live/processes/process_tracker.h"
#include "live/tarnhost/repeated_task.h"
#include "hosted/machine/machine.h"
#include "hosted/machine/native_image.h"
#include "hosted/rtl/debug_print.h"

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <optional>
#include <poll.h>
#include <stdexcept>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <unistd.h>

namespace live
{
namespace
{
using namespace std::chrono_literals;

constexpr hosted::WideView SystemVolume = L"\\Device\\HarddiskVolume1";
constexpr hosted::WideView LiveVolume = L"\\Device\\HarddiskVolume2";
constexpr hosted::WideView SandboxValue = L"SandboxPath";
// List items and headers, so that a dump says something.
constexpr ULONG DebugLogLevel = 0x00004100;
constexpr SIZE_T MostCacheBytes = 1ull << 30;
constexpr SIZE_T MemoryPerCache = 8;
constexpr size_t KeptDebugPrints = 1000;
// About as often as a system of this kind moves its clock and writes what lies in its cache.
constexpr auto ClockTick = 15ms;
constexpr auto LazyWriteInterval = 1s;
constexpr auto WriteBehindInterval = 20ms;
constexpr ULONG ManyDirtyPages = 1024;

// A part of the machine's memory: the kernel above keeps pages as well.
SIZE_T CacheLimit()
{
    const SIZE_T memory = static_cast<SIZE_T>(sysconf(_SC_PHYS_PAGES)) * static_cast<SIZE_T>(sysconf(_SC_PAGESIZE));
    return std::min(memory / MemoryPerCache, MostCacheBytes);
}

hosted::MachineOptions MachineFor(const LiveOptions& options)
{
    hosted::MachineOptions machine;
    machine.System = options.System;
    machine.System.CacheLimitBytes = CacheLimit();
    machine.System.WatchedPool = false;
    hosted::VolumeOptions system;
    system.DeviceName = SystemVolume;
    system.DosName = L"C:";
    system.Folder = "/";
    system.ReadOnly = true;
    system.Without = options.Mount;
    hosted::VolumeOptions live;
    live.DeviceName = LiveVolume;
    live.DosName = L"S:";
    live.Folder = options.Store;
    machine.Volumes = {system, live};
    return machine;
}

bool IsBelow(const std::string& folder, const std::string& path)
{
    return path.size() > folder.size() && path.starts_with(folder) && path[folder.size()] == '/';
}

// Where a file of the host system lies for the hosted one. Names that it cannot have lead nowhere.
hosted::WideString ImageName(const std::string& mount, const std::string& path)
{
    const bool onVolume = IsBelow(mount, path);
    hosted::WideString name(onVolume ? LiveVolume : SystemVolume);
    const std::string rest = onVolume ? path.substr(mount.size()) : path;
    for (size_t begin = 1; begin <= rest.size();)
    {
        const size_t end = std::min(rest.find('/', begin), rest.size());
        hosted::WideString component;
        if (!hosted::NameFromLinux(rest.substr(begin, end - begin), &component))
        {
            return {};
        }
        name += L'\\';
        name += component;
        begin = end + 1;
    }
    return name;
}

void SetDefaults(hosted::Registry& registry)
{
    registry.SetString(hosted::Machine::ServiceKey, SandboxValue, hosted::WideString(LiveVolume) + L"\\Sandbox");
    registry.SetDword(hosted::Machine::ProductKey, L"DebugLogLevel", DebugLogLevel);
}

hosted::WideString SandboxPath(const hosted::Registry& registry)
{
    const std::optional<hosted::RegistryValue> value = registry.GetValue(hosted::Machine::ServiceKey, SandboxValue);
    if (!value)
    {
        return {};
    }
    const auto* text = reinterpret_cast<const WCHAR*>(value->Bytes.data());
    const hosted::WideView whole(text, value->Bytes.size() / sizeof(WCHAR));
    return hosted::WideString(whole.substr(0, whole.find(L'\0')));
}

// The sandbox folder when it lies on the live volume, made if it is missing: no program could make it, since whoever is
// outside may not open it and nobody is inside yet.
hosted::WideString PrepareSandbox(hosted::Registry& registry, const std::string& store)
{
    const hosted::WideString folder = SandboxPath(registry);
    if (!hosted::IsAtOrBelow(folder, LiveVolume))
    {
        return {};
    }
    std::filesystem::path path = store;
    for (size_t begin = LiveVolume.size() + 1; begin < folder.size();)
    {
        const size_t end = std::min(folder.find(L'\\', begin), folder.size());
        path /= hosted::NameToLinux(hosted::WideView(folder).substr(begin, end - begin));
        begin = end + 1;
    }
    std::filesystem::create_directories(path);
    return folder;
}

void FollowLinuxClock()
{
    timespec now = {};
    clock_gettime(CLOCK_REALTIME, &now);
    hosted::SetSystemTime(hosted::SystemTimeOf(now));
}

// Ends the mount when a signal asks for it.
class SignalWatch
{
public:
    explicit SignalWatch(std::function<void()> end)
    {
        sigset_t signals;
        sigemptyset(&signals);
        for (const int signal : {SIGTERM, SIGINT, SIGHUP})
        {
            sigaddset(&signals, signal);
        }
        signals_ = signalfd(-1, &signals, SFD_CLOEXEC);
        done_ = eventfd(0, EFD_CLOEXEC);
        thread_ = std::thread(
            [this, end = std::move(end)]
            {
                pollfd wait[] = {{signals_, POLLIN, 0}, {done_, POLLIN, 0}};
                while (poll(wait, 2, -1) < 0)
                {
                }
                if (wait[0].revents != 0)
                {
                    end();
                }
            });
    }
    ~SignalWatch()
    {
        eventfd_write(done_, 1);
        thread_.join();
        close(signals_);
        close(done_);
    }
    SignalWatch(const SignalWatch&) = delete;
    SignalWatch& operator=(const SignalWatch&) = delete;

private:
    int signals_;
    int done_;
    std::thread thread_;
};

std::vector<hosted::VolumeText> VolumeTexts(const LiveOptions& options)
{
    return {{"C:", hosted::Narrow(SystemVolume), "/", "/"},
        {"S:", hosted::Narrow(LiveVolume), options.Store, options.Mount}};
}

// The system with its driver and its processes.
class LiveSystem
{
public:
    LiveSystem(const LiveOptions& options, const Log& log) : log_(log), machine_(MachineFor(options))
    {
        if (!options.Image.empty())
        {
            // First, since it is what most easily cannot be used.
            image_.emplace(options.Image);
        }
        FollowLinuxClock();
        clock_.emplace(ClockTick, FollowLinuxClock);
        hosted::LimitDebugPrints(KeptDebugPrints);
        hosted::EchoDebugPrints(options.Log);
        ReadRegistry(options.Registry);
        sandbox_ = PrepareSandbox(machine_.Registry(), options.Store);
        tracker_.emplace(hosted::TrackerOptions{
            .ImageName = [mount = options.Mount](const std::string& path) { return ImageName(mount, path); }});
        Load();
        control_.emplace(hosted::ControlServerOptions{.Path = options.Socket,
            .ProcessOf = [this](pid_t id) { return tracker_->ProcessById(id); },
            .DriverText = options.Image.empty() ? "native" : options.Image,
            .Volumes = VolumeTexts(options)});
        lazyWriter_.emplace(LazyWriteInterval, [] { hosted::LazyWrite(); });
        // What is written in a stream goes to the store meanwhile, not all at once when it is synchronized.
        writeBehind_.emplace(WriteBehindInterval, [] { hosted::LazyWrite(ManyDirtyPages); });
    }

    const hosted::WideString& Sandbox() const { return sandbox_; }
    hosted::ProcessTracker& Processes() { return *tracker_; }

    // Whether nothing was left behind.
    bool End()
    {
        control_.reset();
        lazyWriter_.reset();
        writeBehind_.reset();
        tracker_.reset();
        machine_.FlushAll();
        const SIZE_T lost = hosted::DiscardDirtyPages();
        if (lost != 0)
        {
            log_.Say("lost: %llu bytes that the store did not take", static_cast<unsigned long long>(lost));
        }
        const NTSTATUS status = machine_.UnloadDriver();
        log_.Say("driver unloaded: status 0x%08x", static_cast<unsigned>(status));
        registry_.reset();
        machine_.Shutdown();
        const std::string leaks = machine_.Leaks();
        log_.Say("left behind: %s", leaks.empty() ? "nothing" : leaks.c_str());
        hosted::EchoDebugPrints(nullptr);
        return NT_SUCCESS(status) && leaks.empty() && lost == 0;
    }

private:
    void ReadRegistry(const std::string& path)
    {
        if (!path.empty())
        {
            registry_.emplace(path, [this](const std::string& text) { log_.Say("registry: %s", text.c_str()); });
        }
        if (!registry_ || !registry_->Existed())
        {
            SetDefaults(machine_.Registry());
        }
    }

    void Load()
    {
        const NTSTATUS status = machine_.LoadDriver(image_ ? image_->Entry() : hosted::Image::Native);
        if (!NT_SUCCESS(status))
        {
            throw std::runtime_error("the driver does not load");
        }
    }

    const Log& log_;
    std::optional<hosted::LoadedImage> image_;
    hosted::Machine machine_;
    std::optional<RepeatedTask> clock_;
    std::optional<hosted::RegistryFile> registry_;
    hosted::WideString sandbox_;
    std::optional<hosted::ProcessTracker> tracker_;
    std::optional<hosted::ControlServer> control_;
    std::optional<RepeatedTask> lazyWriter_;
    std::optional<RepeatedTask> writeBehind_;
};
}

bool RunLiveSystem(const LiveOptions& options, const std::function<void()>& ready)
{
    const Log log(options.Log);
    LiveSystem system(options, log);
    for (const hosted::VolumeText& volume : VolumeTexts(options))
    {
        log.Say("volume %s %s: %s", volume.Drive.c_str(), volume.Device.c_str(), volume.Folder.c_str());
    }
    log.Say("sandbox folder: %s", hosted::Narrow(system.Sandbox()).c_str());
    log.Say("control socket: %s", options.Socket.c_str());
    log.Say("processes: %s", system.Processes().ConnectorInUse() ? "told by the kernel" : "looked up in /proc");

    MountState state{hosted::WideString(LiveVolume)};
    state.SandboxFolder = system.Sandbox();
    state.ProcessOf = [&system](pid_t thread) { return system.Processes().ProcessOfThread(thread); };
    state.GivesOwnership = geteuid() == 0;
    state.Ready = [&]
    {
        log.Say("mounted on %s", options.Mount.c_str());
        ready();
    };
    {
        LiveMount mount(state, options.Mount);
        const SignalWatch watch([&mount] { mount.End(); });
        mount.Serve();
    }
    log.Say("unmounted");
    return system.End();
}
}
