// What happens between a driver's look at a program's buffer and its use of it.
#pragma once

#include <functional>

namespace hosted
{
// Runs after each ProbeForWrite of the calling Linux thread that found its buffer good: another thread of the program
// may take the buffer away just then. An empty function removes it.
void SetAfterProbe(std::function<void()> hook);
}
