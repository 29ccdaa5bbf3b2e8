// The driver's only access gate.
#pragma once

#include <fltkernel.h>

// Inside the sandbox folder only processes under the sandbox may open anything, and only while a key is set; such an
// open asks for the post-create callback, which attaches the cipher context, while encryption is on. Outside it a
// protected file is for the processes that were named for it, and the product's folder for the product's programs and
// those that the agent watches. A denial completes the create with STATUS_ACCESS_DENIED. Volume opens and creates whose
// path cannot be had pass. IRQL PASSIVE_LEVEL; above it everything passes.
FLT_PREOP_CALLBACK_STATUS NTAPI PreCreate(
    PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS objects, PVOID* completionContext);
