// The ways of a program in the hosted machine to the driver there.
#pragma once

#include "agent/tarnctl/transport.h"
#include "hosted/machine/machine.h"

namespace tarnctl_test
{
// What a command's wait for the log event does, on the way that it waits on; the default does not wait for what cannot
// come any more.
using Longest = std::optional<std::chrono::milliseconds>;
using Waiting = std::function<tarnctl::Wake(tarnctl::Transport& way, Longest longest)>;

tarnctl::Wake SignalledOrInterrupted(tarnctl::Transport& way, Longest longest = {});

// Fails with NotReachable when the program cannot open the device.
std::unique_ptr<tarnctl::Transport> ConnectInMachine(const hosted::Program& program);

// The same way with waits of the test's own.
std::unique_ptr<tarnctl::Transport> WaitingBy(Waiting waiting, std::unique_ptr<tarnctl::Transport> way);
}
