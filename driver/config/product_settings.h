// What the product's installer left in the registry: which product it installed, and where.
// Failures are printed and returned; none is fatal. IRQL PASSIVE_LEVEL, no locks held.
#pragma once

#include "driver/util/counted_string.h"

// The browser-mode list stays inactive in this mode.
inline constexpr LONG InstallerModeWithoutBrowser = 1;
inline constexpr LONG InstallerModeUnknown = -1;

// *mode: InstallerModeUnknown unless a mode was read, and also for a sound value with an unknown digit.
// STATUS_UNSUCCESSFUL for a value that is not as expected or cannot be read, STATUS_INSUFFICIENT_RESOURCES without
// memory, else the failure to open the key or to find the value.
NTSTATUS ReadInstallerMode(PLONG mode);

// The folder that the product was installed in, as the installer wrote it, into an empty string, which stays empty on
// failure. STATUS_UNSUCCESSFUL for a value that is not as expected, STATUS_INSUFFICIENT_RESOURCES without memory, else
// the failure to open the key or to find or read the value.
NTSTATUS ReadProductPath(CountedString* path);
