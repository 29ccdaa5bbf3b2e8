#include "tests/live/test/live_volume.h"

#include <algorithm>
#include <array>
#include <csignal>
#include <fcntl.h>
#include <fstream>
#include <stdexcept>
#include <sys/mount.h>
#include <sys/wait.h>
#include <utility>
#include <unistd.h>

namespace live_test
{
namespace fs = std::filesystem;

namespace
{
constexpr char Key[] = "000102030405060708090a0b0c0d0e0f101112131415161718191a1b1c1d1e1f5c";
constexpr char LongestRun[] = "timeout -k 5 300 ";

void MustSucceed(const Outcome& outcome, const std::string& what)
{
    if (outcome.Code != 0)
    {
        throw std::runtime_error(what + " failed with " + std::to_string(outcome.Code) + ":\n" + outcome.Output);
    }
}
}

std::string SystemPath(const fs::path& path)
{
    std::string text = "C:" + path.string();
    std::replace(text.begin(), text.end(), '/', '\\');
    return text;
}

Outcome Shell(const std::string& command, const fs::path& folder)
{
    return RunShell("cd " + Quoted(folder) + " && { " + command + "\n} 2>&1 < /dev/null");
}

bool CanMount(std::string* reason)
{
    if (access("/dev/fuse", R_OK | W_OK) != 0)
    {
        *reason = "/dev/fuse cannot be used here";
        return false;
    }
    return true;
}

LiveVolume::LiveVolume(const std::string& image, const std::string& options)
    : image_(image), options_(options), scratch_(fs::is_directory("/dev/shm") ? "/dev/shm" : fs::temp_directory_path())
{
    fs::create_directory(Store());
    fs::create_directory(Mount());
    fs::copy_file("/bin/bash", folder_.Path("launch"));
    Start();
}

LiveVolume::~LiveVolume()
{
    if (server_ > 0)
    {
        End();
    }
    umount2(Mount().c_str(), MNT_DETACH);
}

void LiveVolume::Start()
{
    int pipeEnds[2];
    if (pipe2(pipeEnds, O_CLOEXEC) != 0)
    {
        throw std::runtime_error("no pipe");
    }
    const std::string command = "cd " + Quoted(Folder()) + " && exec " + std::string(TARNHOST) + " --store " +
                                Quoted(Store()) + " --mount " + Quoted(Mount()) + " --socket " +
                                Quoted(folder_.Path("control")) +
                                (image_.empty() ? "" : " --driver " + Quoted(image_)) + " " + options_;
    server_ = fork();
    if (server_ == 0)
    {
        dup2(pipeEnds[1], STDOUT_FILENO);
        dup2(pipeEnds[1], STDERR_FILENO);
        execl("/bin/sh", "sh", "-c", command.c_str(), nullptr);
        _exit(127);
    }
    close(pipeEnds[1]);
    {
        const std::lock_guard guard(mutex_);
        log_.clear();
        ended_ = false;
    }
    collector_ = std::thread(&LiveVolume::CollectLog, this, pipeEnds[0]);
    try
    {
        if (!WaitUntilMounted())
        {
            throw std::runtime_error(command + " did not mount:\n" + Log());
        }
        GiveSettings();
    }
    catch (...)
    {
        End();
        throw;
    }
}

void LiveVolume::CollectLog(int pipe)
{
    std::array<char, 4096> piece;
    ssize_t bytes;
    while ((bytes = read(pipe, piece.data(), piece.size())) > 0)
    {
        const std::lock_guard guard(mutex_);
        log_.append(piece.data(), static_cast<size_t>(bytes));
        grown_.notify_all();
    }
    close(pipe);
    const std::lock_guard guard(mutex_);
    ended_ = true;
    grown_.notify_all();
}

bool LiveVolume::WaitUntilMounted()
{
    const auto mounted = [this] { return log_.find("tarnhost: mounted on") != std::string::npos; };
    std::unique_lock lock(mutex_);
    grown_.wait(lock, [&] { return ended_ || mounted(); });
    return mounted();
}

void LiveVolume::GiveSettings() const
{
    MustSucceed(Agent("key set --hex " + std::string(Key)), "setting the key");
    MustSucceed(Agent("parent add '" + SystemPath(folder_.Path("launch")) + "'"), "adding the parent");
    MustSucceed(Agent("start"), "starting");
}

std::string LiveVolume::Log() const
{
    const std::lock_guard guard(mutex_);
    return log_;
}

std::string LiveVolume::AgentCommand() const
{
    return std::string(TARNCTL) + " --socket " + Quoted(folder_.Path("control"));
}

Outcome LiveVolume::Agent(const std::string& arguments) const
{
    return Shell(LongestRun + AgentCommand() + " " + arguments, Folder());
}

fs::path LiveVolume::WriteScript(const std::string& script, const char* name) const
{
    const fs::path file = folder_.Path(name);
    std::ofstream(file) << "set -euo pipefail\n" << script << "\n";
    return file;
}

Outcome LiveVolume::Inside(const std::string& script, const fs::path& folder) const
{
    const fs::path inner = WriteScript("cd " + Quoted(folder) + "\n" + script, "inside.sh");
    // The parent itself is not inside, so it does not even go into the folder; and with a command behind it, the inner
    // shell is a child and does not take its place.
    return Shell(
        LongestRun + Quoted(folder_.Path("launch")) + " -c \"bash " + Quoted(inner) + "; exit \\$?\"", Folder());
}

Outcome LiveVolume::Outside(const std::string& script, const fs::path& folder) const
{
    const fs::path file = WriteScript(script, "outside.sh");
    return Shell(LongestRun + std::string("bash ") + Quoted(file), folder);
}

int LiveVolume::End(int signal)
{
    if (server_ <= 0)
    {
        return -1;
    }
    kill(server_, signal);
    int status = 0;
    waitpid(std::exchange(server_, -1), &status, 0);
    collector_.join();
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

void LiveVolume::Kill()
{
    if (server_ <= 0)
    {
        return;
    }
    kill(server_, SIGKILL);
    waitpid(std::exchange(server_, -1), nullptr, 0);
    collector_.join();
    umount2(Mount().c_str(), MNT_DETACH);
}

void LiveVolume::Remount()
{
    if (End() != 0)
    {
        throw std::runtime_error("the server did not end well:\n" + Log());
    }
    Start();
}
}
