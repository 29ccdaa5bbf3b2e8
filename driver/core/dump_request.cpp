// The request that has the configuration written out.

#include "driver/core/request.h"
#include "driver/log/parameter_dump.h"

// Succeeds whatever becomes of the dump, whose last line tells.
NTSTATUS OutputCurrentParam(Request&)
{
    DbgPrint("Tarnveil - IOCTL_OUTPUT_CURRENT_PARAM\n");
    OutputParameters();
    return STATUS_SUCCESS;
}
