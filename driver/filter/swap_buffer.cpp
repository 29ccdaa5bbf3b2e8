#include "driver/filter/swap_buffer.h"

#include "driver/util/pool.h"

PUCHAR CallerDataAddress(PMDL mdl, PVOID buffer)
{
    if (mdl == nullptr)
    {
        return static_cast<PUCHAR>(buffer);
    }
    if (FlagOn(mdl->MdlFlags, MDL_MAPPED_TO_SYSTEM_VA | MDL_SOURCE_IS_NONPAGED_POOL))
    {
        return static_cast<PUCHAR>(mdl->MappedSystemVa);
    }
    ULONG priority = NormalPagePriority | MdlMappingNoExecute | DefaultMdlProtection;
    return static_cast<PUCHAR>(MmMapLockedPagesSpecifyCache(mdl, KernelMode, MmCached, nullptr, FALSE, priority));
}

SwapBuffer::~SwapBuffer()
{
    if (mdl_ != nullptr)
    {
        IoFreeMdl(mdl_);
    }
    if (buffer_ != nullptr)
    {
        FltFreePoolAlignedWithTag(instance_, buffer_, DriverPoolTag);
    }
}

bool SwapBuffer::Allocate(ULONG bytes, ULONG mdlBytes)
{
    buffer_ = FltAllocatePoolAlignedWithTag(instance_, DefaultPoolType, bytes, DriverPoolTag);
    if (buffer_ == nullptr)
    {
        return false;
    }
    mdl_ = IoAllocateMdl(buffer_, mdlBytes, FALSE, FALSE, nullptr);
    if (mdl_ == nullptr)
    {
        return false;
    }
    MmBuildMdlForNonPagedPool(mdl_);
    return true;
}

void SwapBuffer::MoveTo(WriteSwapContext* swap)
{
    swap->NewBuffer = buffer_;
    swap->NewMdl = mdl_;
    buffer_ = nullptr;
    mdl_ = nullptr;
}

void FreeSwap(PFLT_INSTANCE instance, WriteSwapContext* swap)
{
    if (swap->NewBuffer != nullptr)
    {
        FltFreePoolAlignedWithTag(instance, swap->NewBuffer, DriverPoolTag);
    }
    FreePool(swap);
}
