// A mounted volume and the programs that use it, inside the sandbox and outside.
#pragma once

#include "tests/support/shell.h"
#include "tests/support/temporary_folder.h"

#include <condition_variable>
#include <csignal>
#include <filesystem>
#include <mutex>
#include <string>
#include <sys/types.h>
#include <thread>

namespace live_test
{
using Outcome = ShellOutcome;

// Runs a shell command line in a folder. Its output is that of both streams.
Outcome Shell(const std::string& command, const std::filesystem::path& folder);

// tarnhost with a store of its own, a key, and one monitored parent: a shell of its own, whose children are inside.
// Everything is below one temporary folder, which goes with the object. Throws std::runtime_error when it does not
// start.
class LiveVolume
{
public:
    // `image`: the driver image; empty: the native driver. `options`: further ones for tarnhost, which
    // runs in that folder.
    explicit LiveVolume(const std::string& image, const std::string& options = {});
    ~LiveVolume();
    LiveVolume(const LiveVolume&) = delete;
    LiveVolume& operator=(const LiveVolume&) = delete;

    std::filesystem::path Folder() const { return folder_.Path(); }
    // A folder that has nothing to do with the volume; in memory where the machine has such.
    std::filesystem::path Scratch() const { return scratch_.Path(); }
    std::filesystem::path Store() const { return folder_.Path("store"); }
    std::filesystem::path Mount() const { return folder_.Path("mount"); }
    std::filesystem::path Sandbox() const { return Mount() / "Sandbox"; }
    std::filesystem::path SandboxStore() const { return Store() / "Sandbox"; }
    std::string Log() const;
    pid_t Server() const { return server_; }

    // A script run by a child of the monitored parent; it ends at the first command that fails.
    Outcome Inside(const std::string& script, const std::filesystem::path& folder) const;
    Outcome Inside(const std::string& script) const { return Inside(script, Sandbox()); }
    // A script run by a shell that has nothing to do with the sandbox.
    Outcome Outside(const std::string& script, const std::filesystem::path& folder) const;
    // The agent, with this volume's socket.
    Outcome Agent(const std::string& arguments) const;
    // The agent's command line for scripts.
    std::string AgentCommand() const;

    // Ends the server, as an administrator does, or with signal 0 waits for its end; its exit code, which is not 0 when
    // something was left behind or it does not run. Start brings it back with the same store.
    int End(int signal = SIGTERM);
    void Start();
    // Ends it at once, with nothing flushed, and takes the dead mount away.
    void Kill();
    // Everything goes and comes back from the store.
    void Remount();

private:
    std::filesystem::path WriteScript(const std::string& script, const char* name) const;
    void GiveSettings() const;

    void CollectLog(int pipe);
    bool WaitUntilMounted();

    const std::string image_;
    const std::string options_;
    const TemporaryFolder folder_;
    const TemporaryFolder scratch_;
    pid_t server_ = -1;

    mutable std::mutex mutex_;
    std::condition_variable grown_;
    std::string log_;    // guarded by mutex_
    bool ended_ = false; // the log; guarded by mutex_
    std::thread collector_;
};

// As the driver's patterns name a file of the machine.
std::string SystemPath(const std::filesystem::path& path);

// Whether this machine can mount at all.
bool CanMount(std::string* reason);

// The first run of 32 bytes that a file of the plain folder shares with a file of the other, as text for a message;
// empty when there is none. Runs of one value do not count, as a hole is one.
std::string FindPlainRun(const std::filesystem::path& plain, const std::filesystem::path& other);
}
