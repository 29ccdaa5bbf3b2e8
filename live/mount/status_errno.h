// What a Linux program is told when a request of its was refused.
#pragma once

#include <ntifs.h>

namespace live
{
// The errno value for a status; 0 for successes and for warnings that come with a whole answer. EIO for statuses that
// have no like in Linux.
int ErrorFromStatus(NTSTATUS status);
}
