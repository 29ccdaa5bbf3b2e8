// Enciphering what paging and non-cached writes take to disk, in a buffer of the driver's own: the caller's bytes
// are never changed. Cached writes pass untouched; their data comes back as a paging write.
#pragma once

#include <fltkernel.h>

// Any failure lets the write go on unchanged, so a write without memory stores its span in the clear. IRQL up to
// APC_LEVEL; above it everything passes.
FLT_PREOP_CALLBACK_STATUS NTAPI PreWrite(
    PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS objects, PVOID* completionContext);
// Gives the caller's buffer back and frees the driver's. IRQL up to DISPATCH_LEVEL.
FLT_POSTOP_CALLBACK_STATUS NTAPI PostWrite(
    PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS objects, PVOID completionContext, FLT_POST_OPERATION_FLAGS flags);
