// One program's conversation with the control server.
#pragma once

#include "live/control/client_program.h"
#include "live/control/control_server.h"
#include "live/control/frame_channel.h"

namespace hosted
{
// Used by one thread.
class ControlConnection
{
public:
    // `peer`: the id of the process that connected. `options` and `buffers` outlive the object.
    // `process` is that of the peer, referenced, and this object's from then on; null when the hosted system does not
    // know it.
    ControlConnection(
        FrameChannel channel, pid_t peer, Process* process, const ControlServerOptions& options, UserBuffers& buffers);
    ~ControlConnection();
    ControlConnection(const ControlConnection&) = delete;
    ControlConnection& operator=(const ControlConnection&) = delete;

    // Answers requests until the peer is gone, sends what is no message, or it is time to stop.
    void Serve();

private:
    using Body = std::span<const std::uint8_t>;
    // An answer's body; empty when nobody is there to get one.
    using Answer = std::vector<std::uint8_t>;

    Answer Handle(control_socket::Kind kind, Body body);
    Answer Greet(Body body);
    Answer DeviceControl(Body body);
    Answer CreateEvent();
    Answer WaitForEvent(Body body);
    Answer ReadMailslot();

    FrameChannel channel_;
    const pid_t peer_;
    Process* process_; // until greeted
    const ControlServerOptions& options_;
    UserBuffers& buffers_;
    std::unique_ptr<ClientProgram> program_; // once greeted
};
}
