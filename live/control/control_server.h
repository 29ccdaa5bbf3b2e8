// The control socket of a live volume: programs' requests to the driver, their log events, the debug mailslot. What
// travels is in protocol.h and docs/control-protocol.md.
#pragma once

#include "hosted/ps/process.h"

#include <sys/types.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace hosted
{
// What a program is told of a volume; UTF-8.
struct VolumeText
{
    std::string Drive;      // "S:"
    std::string Device;     // "\Device\HarddiskVolume2"
    std::string Folder;     // where the host keeps its files
    std::string MountPoint; // where the host's programs see it; may be empty
};

struct ControlServerOptions
{
    std::string Path; // of the socket
    // The hosted process that a process of the host is, with a reference for the server; null: the program is refused.
    // Called by any thread.
    std::function<Process*(pid_t)> ProcessOf;
    std::string DriverText;
    std::vector<VolumeText> Volumes;
};

// Serves from the constructor to Stop, while a machine is up. Only programs of the same user, and root's, are served;
// each has a thread of its own. The driver may be loaded and unloaded meanwhile.
class ControlServer
{
public:
    // The socket's folder is made, for the user alone, when it is missing; a socket that nobody serves any more is
    // replaced. Throws std::runtime_error: somebody serves it, the path is too long, the folder of a default path is
    // not the user's own, the host's error.
    explicit ControlServer(ControlServerOptions options);
    ~ControlServer();
    ControlServer(const ControlServer&) = delete;
    ControlServer& operator=(const ControlServer&) = delete;

    // Ends every connection and gives back what it held; the socket disappears. Again and again without effect; by one
    // thread at a time.
    void Stop();

private:
    class Body;
    std::unique_ptr<Body> body_;
};
}
