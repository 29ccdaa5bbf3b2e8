// The bare image name of a running process.
#pragma once

#include "driver/util/pool.h"

// A terminated copy of the name that the process snapshot shows. STATUS_OBJECT_NAME_NOT_FOUND when no process has
// the id, STATUS_INSUFFICIENT_RESOURCES without memory, else the failure to take a snapshot. IRQL PASSIVE_LEVEL.
NTSTATUS GetProcessName(PoolPointer<WCHAR>* name, HANDLE processId);
