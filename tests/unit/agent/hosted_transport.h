// The way of a program in the hosted machine to the driver there.
#pragma once

#include "agent/tarnctl/transport.h"
#include "hosted/machine/machine.h"

namespace tarnctl_test
{
// What the log event's wait does; the default does not wait for what cannot come any more.
using Longest = std::optional<std::chrono::milliseconds>;
using Waiting = std::function<tarnctl::Wake(host::ProgramEvent& event, Longest longest)>;

tarnctl::Wake SignalledOrInterrupted(host::ProgramEvent& event, Longest longest = {});

// Fails with NotReachable when the program cannot open the device.
std::unique_ptr<tarnctl::Transport> ConnectInMachine(const host::Program& program,
                                                     Waiting waiting = SignalledOrInterrupted);
}
