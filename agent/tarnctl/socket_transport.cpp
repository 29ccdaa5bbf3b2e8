#include "agent/tarnctl/socket_transport.h"

#include "agent/tarnctl/failure.h"
#include "agent/tarnctl/posix_interruption.h"
#include "agent/tarnctl/socket_client.h"
#include "agent/tarnctl/status_names.h"
#include "live/control/socket_path.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <cerrno>
#include <system_error>

namespace tarnctl
{
using control_socket::Kind;
using control_socket::Reader;
using control_socket::Woken;
using control_socket::Writer;

namespace
{
using Bytes = std::vector<std::uint8_t>;

[[noreturn]] void FailUnreachable(const std::string& path, const std::string& why)
{
    throw Failure(ExitCode::NotReachable, "driver not reachable at " + path + ": " + why +
                                              "; start tarnhost, or name its socket with --socket or " +
                                              control_socket::PathVariable);
}

class SocketMailslot : public Mailslot
{
public:
    explicit SocketMailslot(SocketClient& client) : client_(client) {}
    ~SocketMailslot() override
    {
        try
        {
            client_.Ask(Kind::CloseMailslot);
        }
        catch (const Failure&)
        {
            // With the connection the mailslot has gone, too.
        }
    }

    std::optional<std::u16string> Read() override
    {
        const Bytes answer = client_.Ask(Kind::ReadMailslot);
        Reader reader(answer);
        const bool present = reader.Word() != 0;
        const std::span<const std::uint8_t> bytes = reader.Rest();
        if (!reader.Good() || (!present && !bytes.empty()))
        {
            FailWithStrangeAnswer();
        }
        if (!present)
        {
            return std::nullopt;
        }
        std::u16string text(bytes.size() / sizeof(char16_t), u'\0');
        std::memcpy(text.data(), bytes.data(), text.size() * sizeof(char16_t));
        return text;
    }

private:
    SocketClient& client_;
};

class SocketTransport : public Transport
{
public:
    explicit SocketTransport(SocketClient client) : client_(std::move(client)) { Greet(); }

    Reply Send(std::uint32_t code, std::span<const std::uint8_t> input, std::span<std::uint8_t> output) override
    {
        if (std::max(input.size(), output.size()) > control_socket::MostBufferBytes)
        {
            throw Failure(ExitCode::Trouble, "the request is too long for the host");
        }
        const Writer sizes = Writer().Word(code).Word(static_cast<std::uint32_t>(output.size()));
        const Bytes answer = client_.Ask(Kind::DeviceControl, sizes.Bytes(), input);
        Reader reader(answer);
        Reply reply;
        reply.Status = reader.Word();
        reply.Bytes = reader.Word();
        const std::span<const std::uint8_t> content = reader.Rest();
        if (!reader.Ended() || content.size() != output.size())
        {
            FailWithStrangeAnswer();
        }
        std::ranges::copy(content, output.begin());
        return reply;
    }

    std::uint64_t CreateLogEvent() override
    {
        if (!interruption_)
        {
            interruption_.emplace();
        }
        const Bytes answer = client_.Ask(Kind::CreateEvent);
        Reader reader(answer);
        const std::uint64_t handle = reader.Long();
        if (!reader.Ended())
        {
            FailWithStrangeAnswer();
        }
        return handle;
    }

    Wake WaitForLogEvent(std::optional<std::chrono::milliseconds> longest) override
    {
        // A longer time than the message can say is not waited for by anybody.
        const long long most = control_socket::WaitForever - 1;
        const auto time = longest ? static_cast<std::uint32_t>(std::clamp<long long>(longest->count(), 0, most))
                                  : control_socket::WaitForever;
        client_.Send(Kind::WaitForEvent, Writer().Word(time).Bytes());
        if (InterruptedBeforeAnswer())
        {
            client_.Send(Kind::EndWait);
            client_.Receive();
            client_.Receive();
            return Wake::Interrupted;
        }
        const Bytes answer = client_.Receive();
        Reader reader(answer);
        const auto woken = static_cast<Woken>(reader.Word());
        if (!reader.Ended() || (woken != Woken::Signalled && woken != Woken::TimedOut))
        {
            FailWithStrangeAnswer();
        }
        return woken == Woken::Signalled ? Wake::Signalled : Wake::TimedOut;
    }

    std::optional<LiveDescription> Describe() override { return description_; }

    std::unique_ptr<Mailslot> CreateDebugMailslot() override
    {
        const Bytes answer = client_.Ask(Kind::CreateMailslot);
        Reader reader(answer);
        const std::uint32_t status = reader.Word();
        if (!reader.Ended())
        {
            FailWithStrangeAnswer();
        }
        if (!IsSuccess(status))
        {
            throw Failure(ExitCode::Trouble, "the debug mailslot cannot be made: " + StatusText(status));
        }
        return std::make_unique<SocketMailslot>(client_);
    }

private:
    void Greet();
    bool InterruptedBeforeAnswer() const;

    SocketClient client_;
    LiveDescription description_;
    std::optional<Interruption> interruption_;
};

void SocketTransport::Greet()
{
    const Bytes answer = client_.Ask(Kind::Hello, Writer().Word(control_socket::Version).Bytes());
    Reader reader(answer);
    reader.Word();
    const std::uint32_t status = reader.Word();
    description_.System = reader.Text();
    description_.Driver = reader.Text();
    for (std::uint32_t left = reader.Word(); left > 0 && reader.Good(); --left)
    {
        VolumeDescription& volume = description_.Volumes.emplace_back();
        volume.Drive = reader.Text();
        volume.Device = reader.Text();
        volume.Folder = reader.Text();
        volume.MountPoint = reader.Text();
    }
    if (!reader.Ended())
    {
        FailWithStrangeAnswer();
    }
    if (!IsSuccess(status))
    {
        throw Failure(ExitCode::NotReachable, "driver not reachable: the host runs, but its driver's control device "
                                              "cannot be opened: " +
                                                  StatusText(status));
    }
}

bool SocketTransport::InterruptedBeforeAnswer() const
{
    pollfd descriptors[] = {{client_.Socket(), POLLIN, 0}, {interruption_->Descriptor(), POLLIN, 0}};
    while (poll(descriptors, std::size(descriptors), -1) < 0)
    {
        if (errno != EINTR)
        {
            return false;
        }
    }
    return descriptors[1].revents != 0;
}

// Who listens there. Nothing of the user's goes to another's program.
void CheckServer(const common::Descriptor& socket, const std::string& path)
{
    ucred peer = {};
    socklen_t length = sizeof(peer);
    if (getsockopt(socket.Get(), SOL_SOCKET, SO_PEERCRED, &peer, &length) != 0 ||
        (peer.uid != geteuid() && peer.uid != 0 && geteuid() != 0))
    {
        FailUnreachable(path, "another user's program listens there");
    }
}
}

std::unique_ptr<Transport> ConnectToSocket(const std::string& given)
{
    const auto [path, privateFolder] = control_socket::FindSocketPath(given);
    const std::string trouble =
        privateFolder ? control_socket::FolderTrouble(control_socket::FolderOf(path)) : std::string();
    if (!trouble.empty())
    {
        FailUnreachable(path, trouble);
    }
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof(address.sun_path))
    {
        FailUnreachable(path, "the path is too long for a socket");
    }
    path.copy(address.sun_path, path.size());
    common::Descriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!socket || connect(socket.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0)
    {
        FailUnreachable(path, std::generic_category().message(errno));
    }
    CheckServer(socket, path);
    return std::make_unique<SocketTransport>(SocketClient(std::move(socket)));
}
}
