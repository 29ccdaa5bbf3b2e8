// The memory under the pool: where a block stands, what fills it, how long it stays dead.
#pragma once

#include <ntifs.h>

namespace hosted
{
inline constexpr UCHAR PoolFreshByte = 0xA5;
inline constexpr UCHAR PoolFreedByte = 0xDD;

struct PoolBlock
{
    UCHAR* Address;
    SIZE_T Size;    // as asked for
    UCHAR* Mapping; // guarded blocks: whole pages, the last of them inaccessible; otherwise null
    SIZE_T MappedBytes;
};

// Filled with PoolFreshByte where the model watches its pool. `guarded`: the block ends against an inaccessible page
// (but for the rounding to the alignment of 16 bytes, which is watched by a pattern). Never fails.
PoolBlock AllocatePoolBlock(SIZE_T size, SIZE_T alignment, bool guarded);

// False when bytes behind the block that nobody owns were written.
bool PoolBlockIntact(const PoolBlock& block);

// Poisons the block and keeps it from being used again for a while. Bug check when a block that was freed earlier
// turns out to have been written since.
void RetirePoolBlock(const PoolBlock& block);

// Gives the memory back at once.
void FreePoolBlock(const PoolBlock& block);

// Whether a block that starts there was freed a short while ago.
bool WasPoolBlockRetired(const void* address);
}
