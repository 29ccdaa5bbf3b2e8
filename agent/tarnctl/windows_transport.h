// The driver of this Windows, through its control device.
#pragma once

#include "agent/tarnctl/transport.h"

namespace tarnctl
{
// A Connect.
std::unique_ptr<Transport> ConnectToDevice();
}
