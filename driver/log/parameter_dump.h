// The driver's whole configuration as lines for the product's viewer.
#pragma once

#include <ntifs.h>

// Opens the mailslot, writes the lines and closes it. A failure to read the flags, to open the mailslot, to name the
// process or to copy a list is printed, ends the dump and is returned; but for the first, the last line tells the
// status. A line that cannot be written is left out. No lock is held while a line is written. IRQL PASSIVE_LEVEL.
NTSTATUS OutputParameters();
