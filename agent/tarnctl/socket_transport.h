// The driver of a live volume, through the socket of the host that runs it.
#pragma once

#include "agent/tarnctl/transport.h"

namespace tarnctl
{
// `path` of the socket; empty: where hosts have it by default (TARNVEIL_SOCKET, else a folder of the user's own). Only
// a host of the same user, or root's, is talked to; root talks to any that it names. Throws Failure with NotReachable.
std::unique_ptr<Transport> ConnectToSocket(const std::string& path);
}
