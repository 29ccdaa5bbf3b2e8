#include "live/control/listener.h"

#include "live/control/socket_path.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cerrno>
#include <stdexcept>
#include <system_error>

namespace hosted
{
namespace
{
constexpr int WaitingConnections = 64;

[[noreturn]] void Fail(const std::string& path, const std::string& why)
{
    throw std::runtime_error("control socket " + path + ": " + why);
}

[[noreturn]] void FailWithError(const std::string& path)
{
    Fail(path, std::generic_category().message(errno));
}

sockaddr_un AddressOf(const std::string& path)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof(address.sun_path))
    {
        Fail(path, "the path must have 1 to " + std::to_string(sizeof(address.sun_path) - 1) + " bytes");
    }
    path.copy(address.sun_path, path.size());
    return address;
}

Descriptor NewSocket(const std::string& path)
{
    Descriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!socket)
    {
        FailWithError(path);
    }
    return socket;
}

// Others may have prepared the place that is known beforehand.
void CheckUsualFolder(const std::string& path)
{
    const control_socket::SocketPath usual = control_socket::FindSocketPath({});
    const std::string trouble = usual.PrivateFolder && usual.Path == path
                                    ? control_socket::FolderTrouble(control_socket::FolderOf(path))
                                    : std::string();
    if (!trouble.empty())
    {
        Fail(path, trouble);
    }
}

// While it is held, no other host looks at the folder's socket or makes one there.
Descriptor LockFolder(const std::string& path)
{
    const std::string folder = control_socket::FolderOf(path);
    if (mkdir(folder.c_str(), S_IRWXU) != 0 && errno != EEXIST)
    {
        FailWithError(folder);
    }
    CheckUsualFolder(path);
    Descriptor descriptor(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    int locked = -1;
    do
    {
        locked = descriptor ? flock(descriptor.Get(), LOCK_EX) : -1;
    } while (descriptor && locked != 0 && errno == EINTR);
    if (locked != 0)
    {
        FailWithError(folder);
    }
    return descriptor;
}

// Removes what a host that was killed left behind.
void RemoveStale(const std::string& path, const sockaddr_un& address)
{
    struct stat info = {};
    if (lstat(path.c_str(), &info) != 0)
    {
        if (errno != ENOENT)
        {
            FailWithError(path);
        }
        return;
    }
    if (!S_ISSOCK(info.st_mode))
    {
        Fail(path, "there is something else of that name");
    }
    const Descriptor probe = NewSocket(path);
    const bool connected = connect(probe.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
    // A server whose queue is full (EAGAIN) is one, too.
    if (connected || errno != ECONNREFUSED)
    {
        Fail(path, "another host serves it already");
    }
    if (unlink(path.c_str()) != 0 && errno != ENOENT)
    {
        FailWithError(path);
    }
}
}

ControlListener::ControlListener(const std::string& path) : path_(path)
{
    const sockaddr_un address = AddressOf(path);
    const Descriptor lock = LockFolder(path);
    RemoveStale(path, address);
    socket_ = NewSocket(path);
    // The name takes these rights on when it is made, so there is no moment with others.
    if (fchmod(socket_.Get(), S_IRUSR | S_IWUSR) != 0 ||
        bind(socket_.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0 ||
        listen(socket_.Get(), WaitingConnections) != 0 || lstat(path.c_str(), &made_) != 0)
    {
        FailWithError(path);
    }
}

ControlListener::~ControlListener()
{
    struct stat info = {};
    if (lstat(path_.c_str(), &info) == 0 && info.st_dev == made_.st_dev && info.st_ino == made_.st_ino)
    {
        unlink(path_.c_str());
    }
}
}
