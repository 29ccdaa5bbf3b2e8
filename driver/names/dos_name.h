// Drive-letter paths.
#pragma once

#include "driver/util/counted_string.h"

inline constexpr WCHAR DrivePathPattern[] = L"?:\\*";

// "C:\a\b" to "\Device\HarddiskVolume1\a\b". STATUS_INVALID_PARAMETER for a path without a drive letter;
// STATUS_INSUFFICIENT_RESOURCES without memory or when no counted string is that long; STATUS_UNSUCCESSFUL for a link
// without a target; else the failure to open or read the drive's link. Each is printed, and *ntPath, empty on entry,
// stays so. IRQL PASSIVE_LEVEL.
NTSTATUS GetNtNameFromDosName(PCUNICODE_STRING dosPath, CountedString* ntPath);
