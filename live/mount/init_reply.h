// One answer to the host's kernel that libfuse does not know how to give.
#pragma once

#include "live/mount/fuse_api.h"

namespace live
{
// Lets the session say, if the kernel offers it, that this side takes away a program's set-id bits when its file is
// written. Otherwise the kernel asks for the attribute "security.capability" before every single write. The session
// must be mounted.
void AnswerForSetIdBits(fuse_session* session);
}
