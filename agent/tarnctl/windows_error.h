// Errors of Win32 routines.
#pragma once

#include "agent/tarnctl/failure.h"

#include <string>

namespace tarnctl
{
// Of the calling thread's last error.
[[noreturn]] void FailWithLastError(ExitCode code, const std::string& what);
}
