#include "hosted/io/mdl.h"

#include "hosted/ke/bug_check.h"
#include "hosted/ke/failure_injection.h"
#include "hosted/ke/irql.h"

#include "hosted/ex/pool.h"

#include <cstdlib>
#include <cstring>
#include <mutex>
#include <unordered_set>

namespace hosted
{
namespace
{
// Descriptors longer than this are refused, as Windows 7 does.
constexpr ULONG LongestMdl = 0x80000000u - PAGE_SIZE;
// Fields that Windows leaves as they were in the recycled block.
constexpr int UninitializedByte = 0xCD;
constexpr int FreedByte = 0xDD;
// From this many pages on Windows takes the block from pool instead of its list of blocks of one size.
constexpr ULONG FixedSizePages = 0x11;

struct Live
{
    std::mutex Mutex;
    std::unordered_set<const MDL*> Mdls;
};

Live& Registry()
{
    static auto& live = *new Live;
    return live;
}

PPFN_NUMBER PageArray(PMDL mdl)
{
    return reinterpret_cast<PPFN_NUMBER>(mdl + 1);
}

void FillPageArray(PMDL mdl)
{
    const ULONG pages = ADDRESS_AND_SIZE_TO_SPAN_PAGES(MmGetMdlVirtualAddress(mdl), mdl->ByteCount);
    const auto first = reinterpret_cast<ULONG_PTR>(mdl->StartVa) >> PAGE_SHIFT;
    for (ULONG page = 0; page < pages; ++page)
    {
        PageArray(mdl)[page] = first + page;
    }
}

PMDL AllocateMdl(void* address, ULONG length)
{
    const ULONG pages = ADDRESS_AND_SIZE_TO_SPAN_PAGES(address, length);
    const SIZE_T size = sizeof(MDL) + pages * sizeof(PFN_NUMBER);
    auto* mdl = static_cast<PMDL>(std::malloc(size));
    std::memset(static_cast<void*>(mdl), UninitializedByte, size);
    mdl->Next = nullptr;
    mdl->Size = static_cast<CSHORT>(size);
    mdl->MdlFlags = pages <= FixedSizePages ? MDL_ALLOCATED_FIXED_SIZE : 0;
    mdl->StartVa = PAGE_ALIGN(address);
    mdl->ByteOffset = BYTE_OFFSET(address);
    mdl->ByteCount = length;
    std::lock_guard guard(Registry().Mutex);
    Registry().Mdls.insert(mdl);
    return mdl;
}

void RequireLive(const MDL* mdl, const char* routine)
{
    if (!IsLiveMdl(mdl))
    {
        BugCheck("MDL_NOT_ALIVE", "%s: %p is no memory descriptor list, or was freed", routine,
            static_cast<const void*>(mdl));
    }
}

void FreeMdl(PMDL mdl)
{
    bool wasAlive;
    {
        std::lock_guard guard(Registry().Mutex);
        wasAlive = Registry().Mdls.erase(mdl) == 1;
    }
    if (!wasAlive)
    {
        BugCheck("MDL_NOT_ALIVE", "freed twice: %p", static_cast<void*>(mdl));
    }
    std::memset(static_cast<void*>(mdl), FreedByte, static_cast<USHORT>(mdl->Size));
    std::free(mdl);
}

void Map(PMDL mdl)
{
    mdl->MappedSystemVa = MmGetMdlVirtualAddress(mdl);
    mdl->MdlFlags |= MDL_MAPPED_TO_SYSTEM_VA;
}

void Chain(PIRP irp, PMDL mdl, bool secondary)
{
    if (!secondary)
    {
        irp->MdlAddress = mdl;
        return;
    }
    PMDL* link = &irp->MdlAddress;
    while (*link != nullptr)
    {
        link = &(*link)->Next;
    }
    *link = mdl;
}
}

PMDL LockPages(void* address, ULONG length, LockPurpose purpose)
{
    const PMDL mdl = AllocateMdl(address, length);
    FillPageArray(mdl);
    mdl->Process = nullptr;
    mdl->MdlFlags |= MDL_PAGES_LOCKED;
    if (purpose == LockPurpose::DeviceFillsPages)
    {
        mdl->MdlFlags |= MDL_WRITE_OPERATION | MDL_IO_PAGE_READ;
    }
    return mdl;
}

void ReleaseMdl(PMDL mdl)
{
    RequireLive(mdl, "ReleaseMdl");
    mdl->MdlFlags &= ~(MDL_MAPPED_TO_SYSTEM_VA | MDL_PAGES_LOCKED);
    FreeMdl(mdl);
}

void* MdlSystemAddress(PMDL mdl)
{
    RequireLive(mdl, "MdlSystemAddress");
    if (!(mdl->MdlFlags & (MDL_MAPPED_TO_SYSTEM_VA | MDL_SOURCE_IS_NONPAGED_POOL)))
    {
        if (!(mdl->MdlFlags & MDL_PAGES_LOCKED))
        {
            BugCheck(
                "MDL_NOT_BUILT", "the pages of %p are neither locked nor of non-paged pool", static_cast<void*>(mdl));
        }
        Map(mdl);
    }
    return mdl->MappedSystemVa;
}

bool IsLiveMdl(const MDL* mdl)
{
    std::lock_guard guard(Registry().Mutex);
    return Registry().Mdls.contains(mdl);
}

std::string DescribeLiveMdls()
{
    std::lock_guard guard(Registry().Mutex);
    std::string text;
    for (const MDL* mdl : Registry().Mdls)
    {
        text += text.empty() ? "" : ", ";
        text += "MDL of " + std::to_string(mdl->ByteCount) + " bytes";
        text += mdl->MdlFlags & MDL_PAGES_LOCKED ? " (locked)" : "";
    }
    return text;
}
}

using namespace hosted;

extern "C" PMDL NTAPI IoAllocateMdl(
    PVOID VirtualAddress, ULONG Length, BOOLEAN SecondaryBuffer, BOOLEAN /*ChargeQuota*/, PIRP Irp)
{
    RequireIrql(DISPATCH_LEVEL, "IoAllocateMdl");
    if (SecondaryBuffer && Irp == nullptr)
    {
        BugCheck("MDL_SECONDARY_WITHOUT_IRP", "IoAllocateMdl: a secondary buffer needs a request to be chained to");
    }
    if (InjectFailure("IoAllocateMdl") || Length >= LongestMdl)
    {
        return nullptr;
    }
    const PMDL mdl = AllocateMdl(VirtualAddress, Length);
    if (Irp != nullptr)
    {
        Chain(Irp, mdl, SecondaryBuffer);
    }
    return mdl;
}

extern "C" void NTAPI IoFreeMdl(PMDL Mdl)
{
    RequireIrql(DISPATCH_LEVEL, "IoFreeMdl");
    RequireLive(Mdl, "IoFreeMdl");
    if (Mdl->MdlFlags & MDL_PAGES_LOCKED)
    {
        BugCheck("MDL_FREED_WITH_LOCKED_PAGES", "IoFreeMdl: the pages of %p are still locked", static_cast<void*>(Mdl));
    }
    FreeMdl(Mdl);
}

extern "C" void NTAPI MmBuildMdlForNonPagedPool(PMDL MemoryDescriptorList)
{
    RequireIrql(DISPATCH_LEVEL, "MmBuildMdlForNonPagedPool");
    RequireLive(MemoryDescriptorList, "MmBuildMdlForNonPagedPool");
    const PMDL mdl = MemoryDescriptorList;
    constexpr int Built = MDL_PAGES_LOCKED | MDL_MAPPED_TO_SYSTEM_VA | MDL_SOURCE_IS_NONPAGED_POOL | MDL_PARTIAL;
    if (mdl->MdlFlags & Built)
    {
        BugCheck("MDL_BUILT_TWICE", "MmBuildMdlForNonPagedPool: %p has flags 0x%x", static_cast<void*>(mdl),
            static_cast<unsigned>(mdl->MdlFlags));
    }
    const auto* first = static_cast<const UCHAR*>(MmGetMdlVirtualAddress(mdl));
    if (!IsPoolAddress(first) || (mdl->ByteCount != 0 && !IsPoolAddress(first + mdl->ByteCount - 1)))
    {
        BugCheck("MDL_NOT_OVER_POOL", "MmBuildMdlForNonPagedPool: %u bytes at %p are not inside a pool allocation",
            mdl->ByteCount, MmGetMdlVirtualAddress(mdl));
    }
    FillPageArray(mdl);
    mdl->Process = nullptr;
    mdl->MappedSystemVa = MmGetMdlVirtualAddress(mdl);
    mdl->MdlFlags |= MDL_SOURCE_IS_NONPAGED_POOL;
}

extern "C" PVOID NTAPI MmMapLockedPagesSpecifyCache(PMDL MemoryDescriptorList, KPROCESSOR_MODE AccessMode,
    MEMORY_CACHING_TYPE CacheType, PVOID RequestedAddress, ULONG BugCheckOnFailure, ULONG /*Priority*/)
{
    const char* routine = "MmMapLockedPagesSpecifyCache";
    RequireIrql(DISPATCH_LEVEL, routine);
    RequireLive(MemoryDescriptorList, routine);
    const PMDL mdl = MemoryDescriptorList;
    if (AccessMode != KernelMode || RequestedAddress != nullptr || CacheType != MmCached)
    {
        BugCheck("MDL_MAPPING_KIND", "%s: only cached kernel-mode mappings at any address are modelled", routine);
    }
    if (!(mdl->MdlFlags & MDL_PAGES_LOCKED))
    {
        BugCheck("MDL_PAGES_NOT_LOCKED", "%s: the pages of %p are not locked", routine, static_cast<void*>(mdl));
    }
    if (mdl->MdlFlags & (MDL_MAPPED_TO_SYSTEM_VA | MDL_SOURCE_IS_NONPAGED_POOL))
    {
        BugCheck("MDL_MAPPED_TWICE", "%s: %p has a system address already", routine, static_cast<void*>(mdl));
    }
    if (InjectFailure(routine))
    {
        if (BugCheckOnFailure)
        {
            BugCheck("NO_MORE_SYSTEM_PTES", "%s: failed, and the caller asked for a bug check then", routine);
        }
        return nullptr;
    }
    Map(mdl);
    return mdl->MappedSystemVa;
}
