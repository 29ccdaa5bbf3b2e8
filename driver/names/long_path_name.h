// Expanding short (8.3) path components.
#pragma once

#include "driver/util/counted_string.h"

// Whether a path holds a tilde: short components always do.
bool HasShortName(PCUNICODE_STRING path);

// The path with its short components replaced by their long names, from the process cache where it was expanded
// before. Takes drive-letter and device paths; any other path, and a component that cannot be looked up, stays as it
// is. STATUS_INVALID_PARAMETER for an empty path; STATUS_INSUFFICIENT_RESOURCES, printed, without memory or for a long
// form that no counted string can hold. On failure *longPath is empty. IRQL PASSIVE_LEVEL.
NTSTATUS KernelGetLongPathName(PCUNICODE_STRING path, CountedString* longPath);
