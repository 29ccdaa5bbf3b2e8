// Messages to a host, and its answers, one at a time.
#pragma once

#include "common/descriptor.h"
#include "live/control/protocol.h"

namespace tarnctl
{
class SocketClient
{
public:
    // Takes a connected socket, which blocks.
    explicit SocketClient(common::Descriptor socket) : socket_(std::move(socket)) {}

    using Body = std::span<const std::uint8_t>;

    // Sends a request and gives the body of its answer behind the result. `rest` belongs to the body, and no copy of it
    // is made: a key may be in it. Throws Failure: NotReachable when the host is gone or has no driver, otherwise
    // Trouble.
    std::vector<std::uint8_t> Ask(control_socket::Kind kind, Body body = {}, Body rest = {});

    // The two halves, for who has something to do in between. Answers come in the order of the requests.
    void Send(control_socket::Kind kind, Body body = {}, Body rest = {});
    std::vector<std::uint8_t> Receive();

    int Socket() const { return socket_.Get(); }

private:
    bool SendAll(Body bytes);
    void Fill(std::span<std::uint8_t> bytes);

    common::Descriptor socket_;
    std::uint32_t sent_ = 0;     // the number of the last request
    std::uint32_t received_ = 0; // and of the last one that was answered
};

// Of an answer that is no such thing.
[[noreturn]] void FailWithStrangeAnswer();
}
