// The driver's whole configuration as lines for the product's viewer.
#pragma once

#include <ntifs.h>

// Opens the mailslot, writes the lines and closes it. What fails is printed and ends the dump; the last line then
// tells the status. No lock is held while a line is written. IRQL PASSIVE_LEVEL.
NTSTATUS OutputParameters();
