// The driver's only access gate.
#pragma once

#include <fltkernel.h>

// Inside the sandbox folder only processes under the sandbox may open anything, and only while a key is set; such an
// open asks for the post-create callback, which attaches the cipher context. A denial completes the create with
// STATUS_ACCESS_DENIED. A create whose path cannot be had passes. Above PASSIVE_LEVEL everything passes.
FLT_PREOP_CALLBACK_STATUS NTAPI PreCreate(
    PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS objects, PVOID* completionContext);
