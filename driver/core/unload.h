// Taking the driver down.
#pragma once

#include <fltkernel.h>

// The Filter Manager's unload callback: never refuses. IRQL PASSIVE_LEVEL.
NTSTATUS NTAPI UnloadDriver(FLT_FILTER_UNLOAD_FLAGS flags);
