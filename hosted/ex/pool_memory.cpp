#include "hosted/ex/pool_memory.h"

#include "hosted/ke/bug_check.h"
#include "hosted/ke/system_model.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <mutex>
#include <sys/mman.h>

namespace hosted
{
namespace
{
#if __has_feature(address_sanitizer)
// Its own red zones and quarantine see more than these.
constexpr bool OwnChecks = false;
#else
constexpr bool OwnChecks = true;
#endif

constexpr SIZE_T Granule = 16;
constexpr UCHAR SlackByte = 0x5A;
constexpr size_t RetiredBlocks = 1024;
constexpr SIZE_T RetiredBytes = 4u << 20;

struct Quarantine
{
    std::mutex Lock;
    std::deque<PoolBlock> Blocks;
    SIZE_T Bytes = 0;
};

Quarantine& Retired()
{
    static Quarantine& quarantine = *new Quarantine;
    return quarantine;
}

// Bytes behind the block that are ours to watch.
SIZE_T SlackOf(const PoolBlock& block)
{
    if (block.Mapping != nullptr)
    {
        return static_cast<SIZE_T>(block.Mapping + block.MappedBytes - PAGE_SIZE - (block.Address + block.Size));
    }
    return OwnChecks ? Granule : 0;
}

PoolBlock MapGuarded(SIZE_T size)
{
    SIZE_T rounded = ALIGN_UP_BY(size, Granule);
    SIZE_T bytes = ROUND_TO_PAGES(rounded);
    void* mapping = mmap(nullptr, bytes + PAGE_SIZE, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (mapping == MAP_FAILED)
    {
        BugCheck("pool-memory", "%llu bytes cannot be mapped: %s", size, strerror(errno));
    }
    UCHAR* start = static_cast<UCHAR*>(mapping);
    mprotect(start + bytes, PAGE_SIZE, PROT_NONE);
    return {start + bytes - rounded, size, start, bytes + PAGE_SIZE};
}

bool AllBytes(const UCHAR* bytes, SIZE_T count, UCHAR value)
{
    for (SIZE_T i = 0; i < count; ++i)
    {
        if (bytes[i] != value)
        {
            return false;
        }
    }
    return true;
}

void Discard(const PoolBlock& block)
{
    if (block.Mapping == nullptr)
    {
        if (!OwnChecks)
        {
            // Given back already; the sanitizer keeps it from use.
            return;
        }
        if (!AllBytes(block.Address, block.Size, PoolFreedByte))
        {
            BugCheck("pool-written-after-free", "%llu bytes at %p", block.Size, static_cast<void*>(block.Address));
        }
    }
    FreePoolBlock(block);
}
}

PoolBlock AllocatePoolBlock(SIZE_T size, SIZE_T alignment, bool guarded)
{
    PoolBlock block = {nullptr, size, nullptr, 0};
    if (guarded)
    {
        block = MapGuarded(size);
    }
    else
    {
        void* memory = nullptr;
        if (posix_memalign(&memory, alignment, size + SlackOf(block)) != 0)
        {
            BugCheck("pool-memory", "%llu bytes cannot be allocated", size);
        }
        block.Address = static_cast<UCHAR*>(memory);
    }
    if (Model().WatchedPool)
    {
        memset(block.Address, PoolFreshByte, size);
    }
    memset(block.Address + size, SlackByte, SlackOf(block));
    return block;
}

bool PoolBlockIntact(const PoolBlock& block)
{
    return AllBytes(block.Address + block.Size, SlackOf(block), SlackByte);
}

void RetirePoolBlock(const PoolBlock& block)
{
    if (block.Mapping != nullptr)
    {
        mprotect(block.Mapping, block.MappedBytes, PROT_NONE);
    }
    else
    {
        memset(block.Address, PoolFreedByte, block.Size);
    }
    if (!OwnChecks && block.Mapping == nullptr)
    {
        free(block.Address);
    }
    Quarantine& quarantine = Retired();
    std::lock_guard lock(quarantine.Lock);
    quarantine.Blocks.push_back(block);
    quarantine.Bytes += block.Size;
    while (quarantine.Blocks.size() > RetiredBlocks || quarantine.Bytes > RetiredBytes)
    {
        PoolBlock oldest = quarantine.Blocks.front();
        quarantine.Blocks.pop_front();
        quarantine.Bytes -= oldest.Size;
        Discard(oldest);
    }
}

void FreePoolBlock(const PoolBlock& block)
{
    if (block.Mapping != nullptr)
    {
        munmap(block.Mapping, block.MappedBytes);
        return;
    }
    free(block.Address);
}

bool WasPoolBlockRetired(const void* address)
{
    Quarantine& quarantine = Retired();
    std::lock_guard lock(quarantine.Lock);
    for (const PoolBlock& block : quarantine.Blocks)
    {
        if (block.Address == address)
        {
            return true;
        }
    }
    return false;
}
}
