// Deciphering what paging reads bring from disk. A plain non-cached read is left alone: it returns ciphertext.
#pragma once

#include <fltkernel.h>

// Swaps the buffer of a paging read on a stream with a context. Any failure lets the read go on unchanged. IRQL up to
// APC_LEVEL; above it everything passes.
FLT_PREOP_CALLBACK_STATUS NTAPI PreRead(
    PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS objects, PVOID* completionContext);
// Deciphers into the caller's memory and frees the driver's, at whatever IRQL the completion runs.
FLT_POSTOP_CALLBACK_STATUS NTAPI PostRead(
    PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS objects, PVOID completionContext, FLT_POST_OPERATION_FLAGS flags);
