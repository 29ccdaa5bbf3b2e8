// Pool seen from outside the kernel: what is allocated, and by whom.
#pragma once

#include <ntifs.h>

#include <string>

namespace hosted
{
size_t LivePoolAllocations();
SIZE_T LivePoolBytes();
// Most bytes that were allocated at once since the last reset.
SIZE_T PeakPoolBytes();
void ResetPeakPoolBytes();

// One line per tag, "Tarv: 2 allocations, 1176 bytes", then each allocation with the calls that made it (known
// where the model watches its pool). Empty when nothing is allocated.
std::string DescribeLivePool();

// Whether the address lies inside a live allocation.
bool IsPoolAddress(const void* address);

// Size in bytes of the live allocation that starts there; bug check when none does.
SIZE_T PoolAllocationSize(const void* address);
}
