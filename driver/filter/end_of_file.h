// Following end-of-file changes.
#pragma once

#include <fltkernel.h>

// Asks for the post-operation callback for an end-of-file change of a stream with a context. Above APC_LEVEL, where a
// context cannot be looked for, nothing is followed.
FLT_PREOP_CALLBACK_STATUS NTAPI PreSetInformation(
    PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS objects, PVOID* completionContext);
// A successful change becomes the tracked size; a truncation lowers it. Any IRQL; nothing is done above APC_LEVEL.
FLT_POSTOP_CALLBACK_STATUS NTAPI PostSetInformation(
    PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS objects, PVOID completionContext, FLT_POST_OPERATION_FLAGS flags);
