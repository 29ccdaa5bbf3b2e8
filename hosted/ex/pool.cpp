// The pool routines and their rules.
#include "hosted/ex/pool.h"

#include "hosted/ke/fast_mutex.h"
#include "hosted/ex/pool_records.h"
#include "hosted/ke/bug_check.h"
#include "hosted/ke/failure_injection.h"
#include "hosted/ke/irql.h"
#include "hosted/ke/system_model.h"

#include <cstring>

namespace hosted
{
namespace
{
constexpr SIZE_T OrdinaryAlignment = 16;
constexpr SIZE_T CacheLine = 64;
constexpr int CacheAlignedBit = 4;

// The type without the zeroing flag; bug check for one that the modelled system does not have.
POOL_TYPE BaseType(POOL_TYPE type)
{
    int base = static_cast<int>(type) & ~POOL_ZERO_ALLOCATION;
    bool noExecute = Model().MajorVersion > 6 || (Model().MajorVersion == 6 && Model().MinorVersion >= 2);
    switch (base)
    {
    case NonPagedPool:
    case PagedPool:
    case NonPagedPoolCacheAligned:
        return static_cast<POOL_TYPE>(base);
    case NonPagedPoolNx:
    case NonPagedPoolNxCacheAligned:
        if (noExecute)
        {
            return static_cast<POOL_TYPE>(base);
        }
        BugCheck("pool-type", "non-executable pool (%#x) before version 6.2", base);
    default:
        BugCheck("pool-type", "pool type %#x does not exist", base);
    }
}

SIZE_T AlignmentOf(POOL_TYPE type, SIZE_T size)
{
    if (size >= PAGE_SIZE)
    {
        return PAGE_SIZE;
    }
    return (static_cast<int>(type) & CacheAlignedBit) != 0 ? CacheLine : OrdinaryAlignment;
}

void RequirePoolIrql(POOL_TYPE type, const char* routine)
{
    RequireIrql(type == PagedPool ? APC_LEVEL : DISPATCH_LEVEL, routine);
}

[[noreturn]] void FreeOfUnknown(const void* address)
{
    if (WasPoolBlockRetired(address))
    {
        BugCheck("pool-double-free", "%p was freed before", address);
    }
    BugCheck("pool-foreign-free", "no pool allocation starts at %p%s", address,
        IsPoolAddress(address) ? ", but one contains it" : "");
}
}
}

extern "C" PVOID NTAPI ExAllocatePoolWithTag(POOL_TYPE PoolType, SIZE_T NumberOfBytes, ULONG Tag)
{
    using namespace hosted;
    POOL_TYPE type = BaseType(PoolType);
    RequirePoolIrql(type, "ExAllocatePoolWithTag");
    if (NumberOfBytes == 0)
    {
        BugCheck("pool-zero-bytes", "an allocation of no bytes, tag %s", TagText(Tag).Text);
    }
    if (Tag == 0)
    {
        BugCheck("pool-zero-tag", "an allocation of %llu bytes without a tag", NumberOfBytes);
    }
    if (InjectFailure("ExAllocatePoolWithTag"))
    {
        return nullptr;
    }
    PoolRecord record = {};
    record.Block = AllocatePoolBlock(NumberOfBytes, AlignmentOf(type, NumberOfBytes), Model().GuardedPool);
    record.Tag = Tag;
    record.Type = type;
    bool zeroed = (static_cast<int>(PoolType) & POOL_ZERO_ALLOCATION) != 0 && Model().ZeroesPool;
    if (zeroed)
    {
        memset(record.Block.Address, 0, NumberOfBytes);
    }
    AddPoolRecord(record);
    return record.Block.Address;
}

extern "C" void NTAPI ExFreePoolWithTag(PVOID P, ULONG Tag)
{
    using namespace hosted;
    PoolRecord record;
    if (!FindPoolRecord(P, &record))
    {
        FreeOfUnknown(P);
    }
    RequirePoolIrql(record.Type, "ExFreePoolWithTag");
    // No tag means any: what the system allocates for its callers, a drive name for one, is freed without one.
    if (Tag != 0 && record.Tag != Tag)
    {
        BugCheck(
            "pool-wrong-tag", "%p has the tag %s and is freed with %s", P, TagText(record.Tag).Text, TagText(Tag).Text);
    }
    if (!PoolBlockIntact(record.Block))
    {
        BugCheck("pool-overrun", "bytes behind %p (%llu bytes, tag %s) were written", P, record.Block.Size,
            TagText(Tag).Text);
    }
    if (HoldsFastMutexIn(P, record.Block.Size))
    {
        BugCheck("pool-holds-fast-mutex", "%p is freed with a held fast mutex in it", P);
    }
    // Of two threads that free the same block at once, one finds it gone.
    if (!RemovePoolRecord(P))
    {
        FreeOfUnknown(P);
    }
    Model().WatchedPool ? RetirePoolBlock(record.Block) : FreePoolBlock(record.Block);
}
