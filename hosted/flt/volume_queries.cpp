// What a filter may ask about volumes and files at any time, and memory suited to a volume's disk.
#include "hosted/flt/filter_state.h"

#include "hosted/ke/bug_check.h"
#include "hosted/ke/failure_injection.h"
#include "hosted/ke/irql.h"

#include <algorithm>
#include <cstring>
#include <mutex>
#include <unordered_map>

namespace hosted
{
namespace
{
constexpr SIZE_T LeastAlignment = 16;
constexpr UCHAR CanaryByte = 0xE7;

// An aligned buffer is cut out of a larger pool block; it ends as close to the block's end as its alignment allows, so
// that a guarded pool sees overruns, and the few bytes behind it are watched here.
struct AlignedBuffer
{
    PUCHAR Block;
    SIZE_T BlockBytes;
    SIZE_T Bytes;
    ULONG Tag;
    Volume* Owner;
};

struct Buffers
{
    std::mutex Lock;
    std::unordered_map<PVOID, AlignedBuffer> Alive;
};

Buffers& AlignedBuffers()
{
    static auto& buffers = *new Buffers;
    return buffers;
}

SIZE_T AlignmentOf(const Volume& volume)
{
    return std::max<SIZE_T>({volume.SectorSize, volume.Disk->AlignmentRequirement + SIZE_T{1}, LeastAlignment});
}

void CheckCanary(PUCHAR buffer, const AlignedBuffer& record)
{
    const PUCHAR end = record.Block + record.BlockBytes;
    for (PUCHAR byte = buffer + record.Bytes; byte != end; ++byte)
    {
        if (*byte != CanaryByte)
        {
            BugCheck("ALIGNED_POOL_OVERRUN", "byte %zu behind an aligned buffer of %llu bytes was overwritten",
                static_cast<size_t>(byte - buffer - record.Bytes), record.Bytes);
        }
    }
}
}
}

using namespace hosted;

extern "C" NTSTATUS NTAPI FltIsDirectory(PFILE_OBJECT FileObject, PFLT_INSTANCE Instance, PBOOLEAN IsDirectory)
{
    RequireIrql(PASSIVE_LEVEL, "FltIsDirectory");
    RequireInstance(Instance, "FltIsDirectory");
    if (InjectFailure("FltIsDirectory"))
    {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    if (FileObject->FsContext == nullptr)
    {
        // Not opened yet: the file system has nothing to answer with.
        return STATUS_INVALID_PARAMETER;
    }
    *IsDirectory = Instance->Volume->Files->IsDirectory(FileObject);
    return STATUS_SUCCESS;
}

extern "C" NTSTATUS NTAPI FltGetVolumeName(PFLT_VOLUME Volume, PUNICODE_STRING VolumeName, PULONG BufferSizeNeeded)
{
    RequireIrql(APC_LEVEL, "FltGetVolumeName");
    if (VolumeName == nullptr && BufferSizeNeeded == nullptr)
    {
        return STATUS_INVALID_PARAMETER;
    }
    if (InjectFailure("FltGetVolumeName"))
    {
        return STATUS_FLT_DELETING_OBJECT;
    }
    const WideString& name = FromFltVolume(Volume)->DeviceName;
    const auto bytes = static_cast<USHORT>(name.size() * sizeof(WCHAR));
    if (BufferSizeNeeded != nullptr)
    {
        *BufferSizeNeeded = bytes;
    }
    if (VolumeName == nullptr)
    {
        return STATUS_BUFFER_TOO_SMALL;
    }
    VolumeName->Length = 0;
    if (VolumeName->MaximumLength < bytes)
    {
        return STATUS_BUFFER_TOO_SMALL;
    }
    std::memcpy(VolumeName->Buffer, name.data(), bytes);
    VolumeName->Length = bytes;
    return STATUS_SUCCESS;
}

extern "C" PVOID NTAPI FltAllocatePoolAlignedWithTag(
    PFLT_INSTANCE Instance, POOL_TYPE PoolType, SIZE_T NumberOfBytes, ULONG Tag)
{
    RequireIrql(DISPATCH_LEVEL, "FltAllocatePoolAlignedWithTag");
    RequireInstance(Instance, "FltAllocatePoolAlignedWithTag");
    if (InjectFailure("FltAllocatePoolAlignedWithTag"))
    {
        return nullptr;
    }
    const SIZE_T alignment = AlignmentOf(*Instance->Volume);
    AlignedBuffer record{nullptr, NumberOfBytes + alignment - 1, NumberOfBytes, Tag, Instance->Volume};
    record.Block = static_cast<PUCHAR>(ExAllocatePoolWithTag(PoolType, record.BlockBytes, Tag));
    if (record.Block == nullptr)
    {
        return nullptr;
    }
    const PUCHAR end = record.Block + record.BlockBytes;
    const PUCHAR latest = end - NumberOfBytes;
    const PUCHAR buffer = latest - reinterpret_cast<ULONG_PTR>(latest) % alignment;
    std::memset(buffer + NumberOfBytes, CanaryByte, end - buffer - NumberOfBytes);
    std::lock_guard guard(AlignedBuffers().Lock);
    AlignedBuffers().Alive[buffer] = record;
    return buffer;
}

extern "C" void NTAPI FltFreePoolAlignedWithTag(PFLT_INSTANCE Instance, PVOID Buffer, ULONG Tag)
{
    RequireIrql(DISPATCH_LEVEL, "FltFreePoolAlignedWithTag");
    RequireInstance(Instance, "FltFreePoolAlignedWithTag");
    AlignedBuffer record{};
    {
        std::lock_guard guard(AlignedBuffers().Lock);
        const auto found = AlignedBuffers().Alive.find(Buffer);
        if (found != AlignedBuffers().Alive.end())
        {
            record = found->second;
            AlignedBuffers().Alive.erase(found);
        }
    }
    if (record.Block == nullptr || record.Tag != Tag || record.Owner != Instance->Volume)
    {
        BugCheck(
            "ALIGNED_POOL_FREE", "%p was not allocated with this instance and this tag, or was freed before", Buffer);
    }
    CheckCanary(static_cast<PUCHAR>(Buffer), record);
    ExFreePoolWithTag(record.Block, Tag);
}
