// The list of live pool allocations.
#pragma once

#include "hosted/ex/pool_memory.h"

namespace hosted
{
struct PoolRecord
{
    static constexpr int MostFrames = 12;

    PoolBlock Block;
    ULONG Tag;
    POOL_TYPE Type;
    int FrameCount;
    void* Frames[MostFrames];
};

// Also records the calling stack.
void AddPoolRecord(PoolRecord record);
// False when no live allocation starts there.
bool FindPoolRecord(const void* address, PoolRecord* record);
bool RemovePoolRecord(const void* address);

// Four characters of a tag as text, unprintable ones as dots.
struct TagText
{
    explicit TagText(ULONG tag);
    char Text[5];
};
}
