#include "live/mount/live_mount.h"

#include "live/mount/init_reply.h"
#include "live/mount/operations.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <sys/mount.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace live
{
namespace
{
constexpr unsigned LargestTransfer = 1 << 20;
// Enough that one may wait for the disk; more would only wait for each other.
constexpr unsigned FewestThreads = 4;
constexpr unsigned MostThreads = 16;
constexpr int WakeSignal = SIGUSR1;
constexpr std::chrono::milliseconds WakeInterval(10);
constexpr unsigned BackgroundRequests = 64;
// Two requests, so that one is served while the other is handed over.
constexpr unsigned ReadAhead = 2 * LargestTransfer;

void Initialize(void* userdata, fuse_conn_info* connection)
{
    auto& state = *static_cast<MountState*>(userdata);
    const unsigned wanted = FUSE_CAP_WRITEBACK_CACHE | FUSE_CAP_ATOMIC_O_TRUNC | FUSE_CAP_ASYNC_READ |
                            FUSE_CAP_PARALLEL_DIROPS | FUSE_CAP_ASYNC_DIO;
    // Data need not be invalidated by what this side says of times: every change comes through the kernel. And data
    // arrive in memory, where they are enciphered, so pipes would only cost.
    const unsigned unwanted = FUSE_CAP_AUTO_INVAL_DATA | FUSE_CAP_HANDLE_KILLPRIV | FUSE_CAP_READDIRPLUS |
                              FUSE_CAP_READDIRPLUS_AUTO | FUSE_CAP_SPLICE_READ | FUSE_CAP_SPLICE_WRITE |
                              FUSE_CAP_SPLICE_MOVE;
    connection->want = (connection->want | (wanted & connection->capable)) & ~unwanted;
    connection->max_write = LargestTransfer;
    connection->max_read = LargestTransfer;
    connection->max_readahead = ReadAhead;
    connection->max_background = BackgroundRequests;
    connection->congestion_threshold = BackgroundRequests * 3 / 4;
    if (state.Ready)
    {
        state.Ready();
    }
}

fuse_lowlevel_ops TheOperations()
{
    fuse_lowlevel_ops operations = {};
    operations.init = Initialize;
    operations.lookup = Lookup;
    operations.forget = Forget;
    operations.getattr = GetAttributes;
    operations.setattr = SetAttributes;
    operations.readlink = ReadSymbolicLink;
    operations.mknod = MakeNode;
    operations.mkdir = MakeDirectory;
    operations.unlink = RemoveFile;
    operations.rmdir = RemoveDirectory;
    operations.symlink = MakeSymbolicLink;
    operations.rename = Rename;
    operations.link = Link;
    operations.open = Open;
    operations.read = Read;
    operations.write = Write;
    operations.release = Release;
    operations.fsync = Synchronize;
    operations.opendir = OpenDirectory;
    operations.readdir = ReadDirectory;
    operations.releasedir = Release;
    operations.fsyncdir = Synchronize;
    operations.statfs = GetVolumeStatistics;
    operations.setxattr = SetExtended;
    operations.getxattr = GetExtended;
    operations.listxattr = ListExtended;
    operations.removexattr = RemoveExtended;
    operations.create = Create;
    operations.forget_multi = ForgetMany;
    operations.fallocate = Allocate;
    return operations;
}

// The kernel reads ahead in steps of 128 KiB unless told; only root may tell it. Before the volume is served, so the
// folder itself cannot be asked for its device.
void EnlargeReadAhead(const std::string& folder)
{
    std::ifstream mounts("/proc/self/mountinfo");
    std::string device;
    for (std::string line; std::getline(mounts, line);)
    {
        std::istringstream fields(line);
        std::string id;
        std::string parent;
        std::string number;
        std::string root;
        std::string place;
        fields >> id >> parent >> number >> root >> place;
        device = place == folder ? number : device;
    }
    std::ofstream("/sys/class/bdi/" + device + "/read_ahead_kb") << ReadAhead / 1024 << '\n';
}

// Not libfuse's own way, which closes the connection first: what the kernel has still to write would be lost.
void Unmount(const std::string& folder)
{
    if (umount2(folder.c_str(), MNT_DETACH) == 0 || errno != EPERM)
    {
        return;
    }
    if (const pid_t child = fork(); child == 0)
    {
        execlp("fusermount3", "fusermount3", "-u", "-z", "-q", "--", folder.c_str(), nullptr);
        _exit(127);
    }
    else if (child > 0)
    {
        waitpid(child, nullptr, 0);
    }
}
}

LiveMount::LiveMount(MountState& state, const std::string& folder) : state_(state), folder_(folder)
{
    std::string options =
        "default_permissions,fsname=tarnhost,subtype=tarnhost,max_read=" + std::to_string(LargestTransfer);
    if (geteuid() == 0)
    {
        options += ",allow_other";
    }
    const char* arguments[] = {"tarnhost", "-o", options.c_str()};
    fuse_args args = FUSE_ARGS_INIT(3, const_cast<char**>(arguments));
    const fuse_lowlevel_ops operations = TheOperations();
    session_ = fuse_session_new(&args, &operations, sizeof(operations), &state_);
    fuse_opt_free_args(&args);
    if (session_ == nullptr)
    {
        throw std::runtime_error("libfuse made no session");
    }
    if (fuse_session_mount(session_, folder_.c_str()) != 0)
    {
        fuse_session_destroy(session_);
        throw std::runtime_error("cannot mount on " + folder_);
    }
    EnlargeReadAhead(folder_);
    AnswerForSetIdBits(session_);
}

LiveMount::~LiveMount()
{
    fuse_session_unmount(session_);
    fuse_session_destroy(session_);
    state_.Handles.Clear();
    state_.Nameless.Clear();
}

// libfuse has a loop of its own with several threads, but it ends them by cancellation, which leaves no thread the time
// to give back what it has.
void LiveMount::Serve()
{
    struct sigaction wake = {};
    wake.sa_handler = [](int) {};
    sigaction(WakeSignal, &wake, nullptr);
    const unsigned count = std::clamp(2 * std::thread::hardware_concurrency(), FewestThreads, MostThreads);
    std::vector<std::thread> threads;
    for (unsigned i = 0; i < count; ++i)
    {
        threads.emplace_back([this] { ServeRequests(); });
    }
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [this] { return ended_ != 0 || fuse_session_exited(session_) != 0; });
    // A signal wakes only threads that wait already, so it is sent until all have noticed.
    while (!changed_.wait_for(lock, WakeInterval, [&] { return ended_ == count; }))
    {
        for (std::thread& thread : threads)
        {
            pthread_kill(thread.native_handle(), WakeSignal);
        }
    }
    lock.unlock();
    for (std::thread& thread : threads)
    {
        thread.join();
    }
}

void LiveMount::ServeRequests()
{
    fuse_buf buffer = {};
    while (fuse_session_exited(session_) == 0)
    {
        const int size = fuse_session_receive_buf(session_, &buffer);
        if (size > 0)
        {
            fuse_session_process_buf(session_, &buffer);
        }
        else if (size != -EINTR)
        {
            break;
        }
    }
    std::free(buffer.mem);
    // The first that sees the end tells the others.
    fuse_session_exit(session_);
    const std::lock_guard guard(mutex_);
    ++ended_;
    changed_.notify_all();
}

void LiveMount::End()
{
    if (const int folder = open(folder_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC); folder >= 0)
    {
        syncfs(folder);
        close(folder);
    }
    Unmount(folder_);
    fuse_session_exit(session_);
    const std::lock_guard guard(mutex_);
    changed_.notify_all();
}
}
