// The driver's persistent settings, read once at load from its service key.
#pragma once

#include <ntifs.h>

// Initialises the global state, then reads key, sandbox folder (and with it builds the product-mode list and the
// prefix) and protected files, in that order. Reading stops at the first
// value that is not as expected; what was read before stays in force. Always STATUS_SUCCESS: a broken configuration
// never stops the load. IRQL PASSIVE_LEVEL, before anything can call in.
NTSTATUS LoadConfiguration(PCUNICODE_STRING registryPath);
