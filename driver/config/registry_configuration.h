// The driver's persistent settings, read once at load from its service key.
#pragma once

#include <ntifs.h>

// Initialises the global state, then reads key, sandbox folder (and with it builds the product-mode list and the
// prefix) and protected files, in that order. Reading stops at a key that is there but cannot be read or has a wrong
// length, and at a sandbox folder that is missing or cannot be read; what was read before stays in force. A broken
// configuration never stops the load, so there is nothing to return. `registryPath` is the driver's service key and is
// copied. IRQL PASSIVE_LEVEL, before anything can call in.
void LoadConfiguration(PCUNICODE_STRING registryPath);
