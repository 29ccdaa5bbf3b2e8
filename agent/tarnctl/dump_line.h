// The lines of the debug mailslot.
#pragma once

#include <string>
#include <string_view>

namespace tarnctl
{
// A message without its terminator and line end, in UTF-8.
std::string LineOf(std::u16string_view message);
// The fields of "0|TIME [PROCESS (PID)] tid=TID DRIVER : LEVEL [PROCESS (PID)] MESSAGE"; a line of another form has the
// field "message" alone.
std::string DumpLineJson(const std::string& line);
}
