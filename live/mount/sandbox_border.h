// The border of the sandbox folder, which no file crosses by its name alone.
#pragma once

#include "live/mount/mount_state.h"

namespace live
{
// Whether one of two paths lies in the sandbox folder and the other does not, or one is a folder that the sandbox
// folder lies in. Compared as the driver does: without regard to case, the folder itself inside.
bool CrossesSandboxBorder(const MountState& state, hosted::WideView from, hosted::WideView to);
}
