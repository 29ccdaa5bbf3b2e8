// Whole messages over one connected socket.
#pragma once

#include "common/descriptor.h"
#include "live/control/protocol.h"

#include <chrono>
#include <optional>

namespace hosted
{
using common::Descriptor;

struct ControlFrame
{
    control_socket::Header Header;
    std::vector<std::uint8_t> Body;
};

// Used by one thread. A peer that sends or takes nothing is waited for, until `stop` (an eventfd) is signalled.
class FrameChannel
{
public:
    FrameChannel(Descriptor socket, int stop);

    enum class Arrival
    {
        Whole,
        Gone,     // the peer, or the time to stop has come
        NoHeader, // what came is no message
        TooLong   // its body was not read
    };
    Arrival Read(ControlFrame* frame);
    // False when the peer is gone or the time to stop has come.
    bool Write(std::uint32_t kind, std::uint32_t number, std::span<const std::uint8_t> body);

    enum class Event
    {
        Signalled, // `descriptor`, an eventfd, which is emptied
        Request,   // the peer's next request is on its way
        Gone,
        TimedOut
    };
    using Deadline = std::optional<std::chrono::steady_clock::time_point>;
    Event WaitFor(int descriptor, Deadline deadline);

private:
    bool Ready(short events);
    // Fewer bytes only when the peer is gone or the time to stop has come.
    std::size_t Fill(std::span<std::uint8_t> bytes);

    Descriptor socket_;
    const int stop_;
};
}
