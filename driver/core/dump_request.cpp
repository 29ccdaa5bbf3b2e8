// The request that has the configuration written out.

#include "driver/core/request.h"
#include "driver/log/parameter_dump.h"

// Succeeds whatever becomes of the dump: its own last line tells of a failure.
NTSTATUS OutputCurrentParam(Request&)
{
    DbgPrint("Tarnveil - IOCTL_OUTPUT_CURRENT_PARAM\n");
    OutputParameters();
    return STATUS_SUCCESS;
}
