// Where the control socket is when nobody says another place. Without the hosted kernel, as programs include it, too.
#pragma once

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

namespace control_socket
{
inline constexpr const char* PathVariable = "TARNVEIL_SOCKET";

struct SocketPath
{
    std::string Path;
    // The folder is there for the socket alone and must be the user's own: see FolderTrouble.
    bool PrivateFolder = false;
};

inline std::string FolderOf(const std::string& path)
{
    const std::size_t slash = path.rfind('/');
    return slash == std::string::npos ? "." : path.substr(0, slash == 0 ? 1 : slash);
}

// What was said on the command line, then what the environment says, then a folder of the user's own.
inline SocketPath FindSocketPath(const std::string& given)
{
    if (!given.empty())
    {
        return {given, false};
    }
    const char* const path = std::getenv(PathVariable);
    if (path != nullptr && *path != '\0')
    {
        return {path, false};
    }
    const char* const runtime = std::getenv("XDG_RUNTIME_DIR");
    // A relative one counts as none.
    const std::string folder = runtime != nullptr && *runtime == '/' ? std::string(runtime) + "/tarnhost"
                                                                     : "/tmp/tarnhost-" + std::to_string(geteuid());
    return {folder + "/control", true};
}

// Why others may have put something into a private folder; empty when they cannot have, or when it is not there.
inline std::string FolderTrouble(const std::string& folder)
{
    struct stat info = {};
    if (lstat(folder.c_str(), &info) != 0)
    {
        return {};
    }
    if (!S_ISDIR(info.st_mode))
    {
        return folder + " is no folder";
    }
    if (info.st_uid != geteuid())
    {
        return folder + " belongs to another user";
    }
    if ((info.st_mode & (S_IRWXG | S_IRWXO)) != 0)
    {
        return folder + " is open to other users";
    }
    return {};
}
}
