// tarnhost: the driver serves a folder to the programs of this machine.
// Before the platform's headers, whose macros it does not expect.
#include <CLI/CLI.hpp>

#include "hosted/ldr/pe_file.h"
#include "live/control/socket_path.h"
#include "live/tarnhost/live_system.h"

#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <iostream>
#include <malloc.h>
#include <sys/wait.h>
#include <unistd.h>

namespace
{
namespace fs = std::filesystem;

constexpr int Failed = 1;
constexpr int LargestKeptBlock = 32 << 20;
constexpr int WrongUse = 2;

struct Arguments
{
    std::string Store;
    std::string Mount;
    std::string Driver = "native";
    std::string Registry;
    std::string System = "6.1";
    std::string Socket;
    std::string Log;
    bool Daemon = false;
};

void Describe(CLI::App& app, Arguments& arguments)
{
    app.description("Serves a folder of this machine with the driver in between: programs see plain files under the "
                    "mount point, the store holds what the driver makes of them.");
    app.footer("Examples:\n"
               "  tarnhost --store ~/store --mount ~/sandbox\n"
               "  tarnhost --store ~/store --mount ~/sandbox --driver Tarnveil.sys --registry box.reg --daemon\n"
               "  fusermount3 -u ~/sandbox        ends it\n"
               "Exit code 0: ended with nothing left over; 1: it could not start, or something was left; 2: wrong "
               "use.");
    app.add_option("--store", arguments.Store, "Folder that holds the volume's files")->required();
    app.add_option("--mount", arguments.Mount, "Empty folder under which programs see them")->required();
    app.add_option("--driver", arguments.Driver, "\"native\", or a driver image")->capture_default_str();
    app.add_option("--registry", arguments.Registry, "The system's registry as .reg text; kept up to date");
    app.add_option("--system", arguments.System, "Version of the system to be")
        ->check(CLI::IsMember({"6.1", "6.2", "10.0"}))
        ->capture_default_str();
    app.add_option("--socket", arguments.Socket, "Where tarnctl reaches the driver");
    app.add_option("--log", arguments.Log, "File for the log (default: standard output; with --daemon: none)");
    app.add_flag("--daemon", arguments.Daemon, "Return as soon as the volume can be used, and go on in the background");
}

std::string Folder(const std::string& name, const char* what)
{
    std::error_code error;
    const fs::path path = fs::canonical(name, error);
    if (error || !fs::is_directory(path))
    {
        throw std::runtime_error(std::string(what) + " " + name + ": no such folder");
    }
    return path.string();
}

bool IsIn(const std::string& folder, const std::string& path)
{
    return path == folder || path.starts_with(folder == "/" ? folder : folder + "/");
}

hosted::SystemModel ModelOf(const std::string& version)
{
    return version == "6.1" ? hosted::Windows7() : version == "6.2" ? hosted::Windows8() : hosted::Windows10();
}

live::LiveOptions OptionsFrom(const Arguments& arguments)
{
    live::LiveOptions options;
    options.Store = Folder(arguments.Store, "store");
    options.Mount = Folder(arguments.Mount, "mount point");
    if (IsIn(options.Mount, options.Store) || IsIn(options.Store, options.Mount))
    {
        throw std::runtime_error("store and mount point lie within each other");
    }
    if (arguments.Driver != "native")
    {
        options.Image = fs::absolute(arguments.Driver).string();
    }
    if (!arguments.Registry.empty())
    {
        options.Registry = fs::absolute(arguments.Registry).string();
    }
    options.Socket = control_socket::FindSocketPath(arguments.Socket).Path;
    options.System = ModelOf(arguments.System);
    if (!arguments.Log.empty() || arguments.Daemon)
    {
        const std::string log = arguments.Log.empty() ? "/dev/null" : arguments.Log;
        options.Log = std::fopen(log.c_str(), "ae");
        if (options.Log == nullptr)
        {
            throw std::runtime_error("cannot write the log " + log);
        }
        std::setvbuf(options.Log, nullptr, _IOLBF, 0);
    }
    return options;
}

int Run(const live::LiveOptions& options, const std::function<void()>& ready)
{
    try
    {
        return live::RunLiveSystem(options, ready) ? 0 : Failed;
    }
    catch (const hosted::BadImage& error)
    {
        std::cerr << "tarnhost: " << options.Image << ": " << error.what() << "\n";
    }
    catch (const std::exception& error)
    {
        std::cerr << "tarnhost: " << error.what() << "\n";
    }
    return Failed;
}

// The child says through a pipe that it is ready; the parent stays until then, or until the child has failed.
int RunInBackground(const live::LiveOptions& options)
{
    int pipeEnds[2];
    if (pipe2(pipeEnds, O_CLOEXEC) != 0)
    {
        std::cerr << "tarnhost: no pipe\n";
        return Failed;
    }
    const pid_t child = fork();
    if (child < 0)
    {
        std::cerr << "tarnhost: cannot go into the background\n";
        return Failed;
    }
    if (child != 0)
    {
        close(pipeEnds[1]);
        char ready = 0;
        if (read(pipeEnds[0], &ready, 1) == 1)
        {
            return 0;
        }
        int status = 0;
        waitpid(child, &status, 0);
        return WIFEXITED(status) ? WEXITSTATUS(status) : Failed;
    }
    close(pipeEnds[0]);
    setsid();
    return Run(options,
        [end = pipeEnds[1]]
        {
            const int nothing = open("/dev/null", O_RDWR | O_CLOEXEC);
            for (const int standard : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO})
            {
                dup2(nothing, standard);
            }
            close(nothing);
            const ssize_t told = write(end, "r", 1);
            static_cast<void>(told);
            close(end);
        });
}
}

int main(int count, char** words)
{
    // Buffers of a transfer come and go by the thousand; memory that went back to the host in between costs a fault for
    // each page.
    mallopt(M_MMAP_THRESHOLD, LargestKeptBlock);
    mallopt(M_TRIM_THRESHOLD, LargestKeptBlock);

    // Before there is any other thread: a thread of its own waits for these.
    sigset_t signals;
    sigemptyset(&signals);
    for (const int signal : {SIGTERM, SIGINT, SIGHUP})
    {
        sigaddset(&signals, signal);
    }
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);

    Arguments arguments;
    CLI::App app;
    Describe(app, arguments);
    try
    {
        app.parse(count, words);
    }
    catch (const CLI::ParseError& error)
    {
        return app.exit(error) == 0 ? 0 : WrongUse;
    }
    live::LiveOptions options;
    try
    {
        options = OptionsFrom(arguments);
    }
    catch (const std::exception& error)
    {
        std::cerr << "tarnhost: " << error.what() << "\n";
        return WrongUse;
    }
    return arguments.Daemon ? RunInBackground(options) : Run(options, [] {});
}
