#include "live/control/control_server.h"

#include "live/control/connection.h"
#include "live/control/listener.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

#include <atomic>
#include <cerrno>
#include <list>
#include <stdexcept>
#include <system_error>
#include <thread>

namespace hosted
{
namespace
{
// How long no connection is taken after the host refused one for want of descriptors or memory.
constexpr int RecoveryMilliseconds = 100;
// SO_PEERPIDFD, which older headers do not have.
constexpr int PeerPidDescriptor = 77;
}

class ControlServer::Body
{
public:
    explicit Body(ControlServerOptions options)
        : options_(std::move(options)), listener_(options_.Path), stop_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))
    {
        if (!stop_)
        {
            throw std::runtime_error("control socket " + options_.Path + ": " + std::generic_category().message(errno));
        }
        acceptor_ = std::thread([this] { Accept(); });
    }

    ~Body()
    {
        eventfd_write(stop_.Get(), 1);
        acceptor_.join();
        for (Client& client : clients_)
        {
            client.Thread.join();
        }
    }

private:
    struct Client
    {
        std::thread Thread;
        std::atomic<bool> Ended{false};
    };

    void Accept();
    void Take(Descriptor socket);
    Process* ProcessOfPeer(int socket, pid_t id) const;
    void JoinEnded();

    const ControlServerOptions options_;
    UserBuffers buffers_;
    ControlListener listener_;
    Descriptor stop_;
    std::list<Client> clients_; // the acceptor's
    std::thread acceptor_;
};

void ControlServer::Body::Accept()
{
    bool recovering = false;
    for (;;)
    {
        pollfd descriptors[] = {{stop_.Get(), POLLIN, 0}, {listener_.Socket(), POLLIN, 0}};
        const int ready = poll(descriptors, recovering ? 1 : 2, recovering ? RecoveryMilliseconds : -1);
        recovering = false;
        if (ready < 0 && errno != EINTR)
        {
            return;
        }
        if (ready > 0 && descriptors[0].revents != 0)
        {
            return;
        }
        Descriptor socket(accept4(listener_.Socket(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
        if (socket)
        {
            Take(std::move(socket));
            continue;
        }
        recovering = errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM;
    }
}

Process* ControlServer::Body::ProcessOfPeer(int socket, pid_t id) const
{
    // Of a process that this host cannot see, as in another container, the kernel says 0.
    Process* const process = id > 0 ? options_.ProcessOf(id) : nullptr;
    if (process == nullptr)
    {
        return nullptr;
    }
    // Where the kernel can say it: it has exited since, and its id may be another's.
    int number = -1;
    socklen_t length = sizeof(number);
    if (getsockopt(socket, SOL_SOCKET, PeerPidDescriptor, &number, &length) == 0)
    {
        const Descriptor peer(number);
        pollfd exited = {peer.Get(), POLLIN, 0};
        if (poll(&exited, 1, 0) > 0)
        {
            DereferenceObject(process);
            return nullptr;
        }
    }
    return process;
}

void ControlServer::Body::Take(Descriptor socket)
{
    JoinEnded();
    ucred peer = {};
    socklen_t length = sizeof(peer);
    const bool known = getsockopt(socket.Get(), SOL_SOCKET, SO_PEERCRED, &peer, &length) == 0;
    // The rights of the socket's name keep others away; who changed those does not get further than here.
    if (!known || (peer.uid != geteuid() && peer.uid != 0))
    {
        return;
    }
    const int socketNumber = socket.Get();
    FrameChannel channel(std::move(socket), stop_.Get());
    if (clients_.size() >= control_socket::MostConnections)
    {
        const auto result = static_cast<std::uint32_t>(control_socket::Result::TooMany);
        channel.Write(control_socket::AnswerBit, 0,
            control_socket::Writer().Word(result).Text("too many programs are connected").Bytes());
        return;
    }
    // Now, while its id is its own: whoever gets the socket from it is not asked for.
    Process* const process = ProcessOfPeer(socketNumber, peer.pid);
    Client& client = clients_.emplace_back();
    try
    {
        client.Thread = std::thread(
            [this, &client, pid = peer.pid, process, channel = std::move(channel)]() mutable
            {
                {
                    ControlConnection connection(std::move(channel), pid, process, options_, buffers_);
                    connection.Serve();
                }
                client.Ended = true;
            });
    }
    catch (const std::system_error&)
    {
        // No thread, no connection: it closes.
        clients_.pop_back();
        if (process != nullptr)
        {
            DereferenceObject(process);
        }
    }
}

void ControlServer::Body::JoinEnded()
{
    std::erase_if(clients_,
        [](Client& client)
        {
            const bool ended = client.Ended;
            if (ended)
            {
                client.Thread.join();
            }
            return ended;
        });
}

ControlServer::ControlServer(ControlServerOptions options) : body_(std::make_unique<Body>(std::move(options))) {}

ControlServer::~ControlServer() = default;

void ControlServer::Stop()
{
    body_.reset();
}
}
