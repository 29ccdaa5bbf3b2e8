// The program without its surroundings.
#pragma once

#include "agent/tarnctl/transport.h"

#include <iosfwd>
#include <string>
#include <vector>

namespace tarnctl
{
// Arguments without the program's name, in UTF-8. Returns the exit code (failure.h).
int Run(const std::vector<std::string>& arguments, const Connect& connect, std::ostream& output, std::ostream& error);

// The same where the way is chosen by the option --socket.
int RunOverSocket(
    const std::vector<std::string>& arguments, const ConnectAt& connect, std::ostream& output, std::ostream& error);
}
