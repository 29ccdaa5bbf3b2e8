// Expanding short (8.3) path components.
#pragma once

#include "driver/util/counted_string.h"

// Short components always carry one.
bool HasShortName(PCUNICODE_STRING path);

// The path with its short components replaced by their long names, from the process cache where it was expanded
// before. A component that cannot be looked up stays as it is. STATUS_INVALID_PARAMETER for an empty path;
// STATUS_INSUFFICIENT_RESOURCES without memory. On failure *longPath is empty. IRQL PASSIVE_LEVEL.
NTSTATUS KernelGetLongPathName(PCUNICODE_STRING path, CountedString* longPath);
