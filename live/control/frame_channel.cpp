#include "live/control/frame_channel.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <limits>

namespace hosted
{
namespace
{
using Clock = std::chrono::steady_clock;

// For poll: rounded up, so that the deadline has passed when the time is over.
int MillisecondsTo(FrameChannel::Deadline deadline)
{
    if (!deadline)
    {
        return -1;
    }
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(*deadline - Clock::now()).count();
    return static_cast<int>(std::clamp<long long>(left, 0, std::numeric_limits<int>::max()));
}

bool IsTransient(int error)
{
    return error == EINTR || error == EAGAIN || error == EWOULDBLOCK;
}
}

FrameChannel::FrameChannel(Descriptor socket, int stop) : socket_(std::move(socket)), stop_(stop) {}

bool FrameChannel::Ready(short events)
{
    for (;;)
    {
        pollfd descriptors[] = {{socket_.Get(), events, 0}, {stop_, POLLIN, 0}};
        if (poll(descriptors, std::size(descriptors), -1) < 0)
        {
            if (errno != EINTR)
            {
                return false;
            }
        }
        else if (descriptors[1].revents != 0)
        {
            return false;
        }
        else if (descriptors[0].revents != 0)
        {
            // An error or a hang-up shows in the call that follows.
            return true;
        }
    }
}

std::size_t FrameChannel::Fill(std::span<std::uint8_t> bytes)
{
    std::size_t filled = 0;
    while (filled < bytes.size() && Ready(POLLIN))
    {
        const ssize_t count = recv(socket_.Get(), bytes.data() + filled, bytes.size() - filled, MSG_DONTWAIT);
        if (count == 0 || (count < 0 && !IsTransient(errno)))
        {
            break;
        }
        filled += count > 0 ? static_cast<std::size_t>(count) : 0;
    }
    return filled;
}

FrameChannel::Arrival FrameChannel::Read(ControlFrame* frame)
{
    std::uint8_t bytes[control_socket::HeaderBytes];
    if (Fill(bytes) != sizeof(bytes))
    {
        return Arrival::Gone;
    }
    const std::optional<control_socket::Header> header = control_socket::ParseHeader(bytes);
    if (!header)
    {
        return Arrival::NoHeader;
    }
    frame->Header = *header;
    if (header->BodyBytes > control_socket::MostBodyBytes)
    {
        return Arrival::TooLong;
    }
    frame->Body.resize(header->BodyBytes);
    return Fill(frame->Body) == frame->Body.size() ? Arrival::Whole : Arrival::Gone;
}

bool FrameChannel::Write(std::uint32_t kind, std::uint32_t number, std::span<const std::uint8_t> body)
{
    const std::vector<std::uint8_t> frame = control_socket::Frame(kind, number, body);
    std::size_t sent = 0;
    while (sent < frame.size())
    {
        const ssize_t count =
            send(socket_.Get(), frame.data() + sent, frame.size() - sent, MSG_DONTWAIT | MSG_NOSIGNAL);
        if (count >= 0)
        {
            sent += static_cast<std::size_t>(count);
        }
        else if (!IsTransient(errno) || !Ready(POLLOUT))
        {
            return false;
        }
    }
    return true;
}

FrameChannel::Event FrameChannel::WaitFor(int descriptor, Deadline deadline)
{
    for (;;)
    {
        pollfd descriptors[] = {{socket_.Get(), POLLIN | POLLRDHUP, 0}, {stop_, POLLIN, 0}, {descriptor, POLLIN, 0}};
        const int ready = poll(descriptors, std::size(descriptors), MillisecondsTo(deadline));
        if (ready < 0 && errno != EINTR)
        {
            return Event::Gone;
        }
        if (ready == 0 && Clock::now() >= *deadline)
        {
            return Event::TimedOut;
        }
        if (ready <= 0)
        {
            continue;
        }
        if (descriptors[1].revents != 0 || (descriptors[0].revents & ~POLLIN) != 0)
        {
            return Event::Gone;
        }
        if (descriptors[0].revents != 0)
        {
            return Event::Request;
        }
        eventfd_t count = 0;
        eventfd_read(descriptor, &count);
        return Event::Signalled;
    }
}
}
