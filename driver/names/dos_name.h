// Drive-letter paths.
#pragma once

#include "driver/util/counted_string.h"

inline constexpr WCHAR DrivePathPattern[] = L"?:\\*";

// "C:\a\b" to "\Device\HarddiskVolume1\a\b". STATUS_INVALID_PARAMETER for a path without a drive letter;
// STATUS_INSUFFICIENT_RESOURCES without memory; else the failure to read the drive's link. On failure *ntPath is
// empty. IRQL PASSIVE_LEVEL.
NTSTATUS GetNtNameFromDosName(PCUNICODE_STRING dosPath, CountedString* ntPath);
