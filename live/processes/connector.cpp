#include "live/processes/connector.h"

#include <linux/cn_proc.h>
#include <linux/connector.h>
#include <linux/netlink.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <ctime>
#include <optional>
#include <thread>
#include <utility>

namespace hosted
{
namespace
{
// The headers gave these names another scope over time.
constexpr uint32_t Acknowledgement = 0;
constexpr uint32_t ForkEvent = 0x00000001;
constexpr uint32_t ExecEvent = 0x00000002;
constexpr uint32_t ExitEvent = 0x80000000;

constexpr size_t MessageAt = NLMSG_HDRLEN;
constexpr size_t EventAt = MessageAt + sizeof(cn_msg);

struct Datagram
{
    uint32_t Sequence;
    proc_event Event;
    uint32_t What;
};

std::optional<Datagram> Decode(const char* datagram, size_t length)
{
    if (length < EventAt + offsetof(proc_event, event_data))
    {
        return std::nullopt;
    }
    cn_msg message;
    memcpy(&message, datagram + MessageAt, sizeof message);
    if (message.id.idx != CN_IDX_PROC || message.id.val != CN_VAL_PROC)
    {
        return std::nullopt;
    }
    Datagram decoded{};
    decoded.Sequence = message.seq;
    memcpy(&decoded.Event, datagram + EventAt, std::min(length - EventAt, sizeof decoded.Event));
    memcpy(&decoded.What, datagram + EventAt + offsetof(proc_event, what), sizeof decoded.What);
    return decoded;
}

std::optional<ConnectorEvent> Translate(const Datagram& datagram)
{
    using Kind = ConnectorEvent::Kind;
    const uint64_t time = datagram.Event.timestamp_ns;
    const auto& data = datagram.Event.event_data;
    switch (datagram.What)
    {
    case ForkEvent:
        return ConnectorEvent{
            Kind::Fork, time, data.fork.child_pid, data.fork.child_tgid, data.fork.parent_tgid, false};
    case ExecEvent:
        return ConnectorEvent{Kind::Exec, time, data.exec.process_pid, data.exec.process_tgid, 0, false};
    case ExitEvent:
        return ConnectorEvent{Kind::Exit, time, data.exit.process_pid, data.exit.process_tgid, 0, false};
    default:
        return std::nullopt;
    }
}
}

uint64_t MonotonicNow()
{
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1'000'000'000 + static_cast<uint64_t>(now.tv_nsec);
}

std::unique_ptr<Connector> Connector::Open(int receiveBufferBytes)
{
    const int opened = socket(PF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_CONNECTOR);
    if (opened < 0)
    {
        return nullptr;
    }
    std::unique_ptr<Connector> connector(new Connector(opened));
    sockaddr_nl address{};
    address.nl_family = AF_NETLINK;
    address.nl_groups = CN_IDX_PROC;
    const bool listens = bind(opened, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 &&
                         connector->Listen(true) && connector->TellsOfThisProcess();
    if (!listens)
    {
        return nullptr;
    }
    const int bytes = receiveBufferBytes;
    if (setsockopt(opened, SOL_SOCKET, SO_RCVBUFFORCE, &bytes, sizeof bytes) != 0)
    {
        setsockopt(opened, SOL_SOCKET, SO_RCVBUF, &bytes, sizeof bytes);
    }
    return connector;
}

Connector::~Connector()
{
    // The kernel counts listeners, and stops producing events when the last one says so.
    Listen(false);
    close(socket_);
}

bool Connector::Listen(bool listen)
{
    char datagram[EventAt + sizeof(uint32_t)] = {};
    nlmsghdr header{};
    header.nlmsg_len = sizeof datagram;
    header.nlmsg_type = NLMSG_DONE;
    cn_msg message{};
    message.id = {CN_IDX_PROC, CN_VAL_PROC};
    message.len = sizeof(uint32_t);
    const uint32_t operation = listen ? PROC_CN_MCAST_LISTEN : PROC_CN_MCAST_IGNORE;
    memcpy(datagram, &header, sizeof header);
    memcpy(datagram + MessageAt, &message, sizeof message);
    memcpy(datagram + EventAt, &operation, sizeof operation);
    return send(socket_, datagram, sizeof datagram, 0) == static_cast<ssize_t>(sizeof datagram);
}

// Begins a thread, of which the connector must tell with the ids and the time that are true here. Its event is queued
// before it runs.
bool Connector::TellsOfThisProcess()
{
    constexpr int attempts = 3;
    for (int i = 0; i < attempts; ++i)
    {
        const uint64_t before = MonotonicNow();
        pid_t tid = 0;
        std::thread([&tid] { tid = gettid(); }).join();
        const uint64_t after = MonotonicNow();
        ConnectorEvent event;
        Result result;
        bool lost = false;
        while ((result = Receive(&event)) != Result::Empty)
        {
            if (result == Result::Overrun)
            {
                lost = true;
            }
            else if (event.What == ConnectorEvent::Kind::Fork && event.Thread == tid && event.Process == getpid() &&
                     event.Time >= before && event.Time <= after)
            {
                return true;
            }
        }
        if (!lost)
        {
            return false;
        }
    }
    return false;
}

Connector::Result Connector::Receive(ConnectorEvent* event)
{
    for (;;)
    {
        alignas(nlmsghdr) char datagram[1024];
        sockaddr_nl sender{};
        socklen_t senderLength = sizeof sender;
        const ssize_t length = recvfrom(
            socket_, datagram, sizeof datagram, MSG_DONTWAIT, reinterpret_cast<sockaddr*>(&sender), &senderLength);
        if (length < 0)
        {
            switch (errno)
            {
            case EINTR:
                continue;
            case EAGAIN:
                if (overrun_)
                {
                    // From here on events are queued again, with gaps in their numbers that are known of.
                    overrun_ = false;
                    nextSequence_.clear();
                }
                return Result::Empty;
            default:
                overrun_ = true;
                return Result::Overrun;
            }
        }
        // Programs can send to the group as well; only the kernel is believed.
        const bool fromKernel = senderLength == sizeof sender && sender.nl_pid == 0;
        const auto decoded = fromKernel ? Decode(datagram, static_cast<size_t>(length)) : std::nullopt;
        if (!decoded.has_value() || decoded->What == Acknowledgement)
        {
            continue;
        }
        gap_ = !IsNext(decoded->Event.cpu, decoded->Sequence) || gap_;
        const auto translated = Translate(*decoded);
        if (translated.has_value())
        {
            *event = *translated;
            event->AfterLoss = std::exchange(gap_, false) && !overrun_;
            return Result::Received;
        }
    }
}

// Each processor numbers its events. One that the kernel had no memory for is missing without any other sign.
bool Connector::IsNext(uint32_t processor, uint32_t sequence)
{
    const auto [expected, first] = nextSequence_.try_emplace(processor, sequence);
    const bool isNext = expected->second == sequence;
    expected->second = sequence + 1;
    return isNext;
}
}
