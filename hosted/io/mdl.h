// Memory descriptor lists: the kernel's own side of the routines that drivers use.
#pragma once

#include <ntifs.h>

#include <string>

namespace hosted
{
// What the pages are locked for: the device fills them (a read request) or takes their contents (a write).
enum class LockPurpose
{
    DeviceFillsPages,
    DeviceTakesPages
};

// A descriptor of `length` bytes at `address` whose pages are locked and not mapped, as paging I/O carries it.
// Never fails; give it back with ReleaseMdl. Any IRQL up to DISPATCH_LEVEL.
PMDL LockPages(void* address, ULONG length, LockPurpose purpose);

// Unmaps and unlocks the pages as far as the descriptor's flags ask for it, then frees the descriptor. Bug check when
// it is not alive.
void ReleaseMdl(PMDL mdl);

// Where kernel code reaches the described bytes; maps locked pages when nobody has done so yet. For the hosted kernel
// itself, so it never fails by injection. Bug check when the descriptor is neither built nor locked.
void* MdlSystemAddress(PMDL mdl);

// Whether IoAllocateMdl or LockPages made this descriptor and nobody has freed it since.
bool IsLiveMdl(const MDL* mdl);

// Every descriptor alive, for the check at the end of a run: "MDL of 4096 bytes (locked), ..."; "" when none.
std::string DescribeLiveMdls();
}
