// The threads of the system process that Linux threads play while they play no other.
#pragma once

#include "hosted/ps/process.h"

namespace hosted
{
// Gives back the system thread of every Linux thread; each makes a new one when it next needs it. Bug check when the
// calling thread plays a process.
void ForgetSystemThreads();
}
