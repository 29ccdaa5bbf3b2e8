// Names cut to a fixed room, for log records.
#pragma once

#include <ntifs.h>

// Copies the source into the destination's buffer of MaximumLength bytes. A source that is longer keeps its
// beginning and its end around " ... ". Nothing is terminated. STATUS_BUFFER_TOO_SMALL, with an empty destination, for
// a room below 16 bytes. Any IRQL at which both buffers may be touched.
NTSTATUS CopyNameElided(PUNICODE_STRING destination, PCUNICODE_STRING source);
