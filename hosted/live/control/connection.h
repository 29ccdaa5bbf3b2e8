// One program's conversation with the control server.
#pragma once

#include "hosted/live/control/client_program.h"
#include "hosted/live/control/control_server.h"
#include "hosted/live/control/frame_channel.h"

namespace host
{
// Used by one thread.
class ControlConnection
{
public:
    // `peer`: the id of the process that connected. `options` and `buffers` outlive the object.
    ControlConnection(FrameChannel channel, pid_t peer, const ControlServerOptions& options, UserBuffers& buffers);

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
    const ControlServerOptions& options_;
    UserBuffers& buffers_;
    std::unique_ptr<ClientProgram> program_; // once greeted
};
}
