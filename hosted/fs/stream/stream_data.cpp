// Reading and writing: cached, past the cache, and for the cache itself.
#include "hosted/fs/stream/stream_file_system.h"

#include "hosted/io/mdl.h"
#include "hosted/ke/user_access.h"

#include <algorithm>
#include <limits>

namespace hosted
{
namespace
{
// User memory is not touched while locks are held that a fault would leave behind, nor handed to the store.
constexpr ULONG BounceBytes = 1 << 20;

void* DataAddress(PMDL mdl, void* buffer)
{
    return mdl != nullptr ? MdlSystemAddress(mdl) : buffer;
}

NTSTATUS CheckRange(LONGLONG offset, ULONG length)
{
    return offset < 0 || offset > std::numeric_limits<LONGLONG>::max() - length ? STATUS_INVALID_PARAMETER
                                                                                : STATUS_SUCCESS;
}

bool HasFlag(PFILE_OBJECT file, ULONG flag)
{
    return (__atomic_load_n(&file->Flags, __ATOMIC_RELAXED) & flag) != 0;
}

// The first cached transfer of a file object opens the way for fast I/O.
void StartCaching(PFILE_OBJECT file, ControlBlock& block)
{
    __atomic_store_n(&file->PrivateCacheMap, static_cast<PVOID>(block.Map), __ATOMIC_RELAXED);
}

// move(buffer, offset within the transfer, length) with a buffer that may be handed to the store.
template <class Move>
NTSTATUS Bounce(ULONG length, Move&& move)
{
    auto buffer = std::make_unique_for_overwrite<UCHAR[]>(std::min(length, BounceBytes));
    NTSTATUS status = STATUS_SUCCESS;
    for (ULONG done = 0; done < length && NT_SUCCESS(status);)
    {
        const ULONG step = std::min(length - done, BounceBytes);
        status = move(buffer.get(), done, step);
        done += step;
    }
    return status;
}
}

bool StreamFileSystem::IsSectorAligned(LONGLONG offset, ULONG length) const
{
    return offset % volume_.SectorSize == 0 && length % volume_.SectorSize == 0;
}

NTSTATUS StreamFileSystem::ReadPages(ControlBlock& block, FLT_IO_PARAMETER_BLOCK& operation, ULONG_PTR* information)
{
    const auto& parameters = operation.Parameters.Read;
    const LONGLONG offset = parameters.ByteOffset.QuadPart;
    void* data = DataAddress(parameters.MdlAddress, parameters.ReadBuffer);
    std::shared_lock inner(block.Inner);
    if (block.Discarded || offset >= block.Size())
    {
        return STATUS_END_OF_FILE;
    }
    const ULONG length = static_cast<ULONG>(std::min<LONGLONG>(parameters.Length, block.Size() - offset));
    NTSTATUS status = block.Data->Read(offset, data, length);
    *information = NT_SUCCESS(status) ? length : 0;
    return status;
}

NTSTATUS StreamFileSystem::WritePages(ControlBlock& block, FLT_IO_PARAMETER_BLOCK& operation, ULONG_PTR* information)
{
    const auto& parameters = operation.Parameters.Write;
    const LONGLONG offset = parameters.ByteOffset.QuadPart;
    const void* data = DataAddress(parameters.MdlAddress, parameters.WriteBuffer);
    std::lock_guard inner(block.Inner);
    if (block.Discarded || offset >= block.Size())
    {
        return STATUS_SUCCESS;
    }
    const ULONG length = static_cast<ULONG>(std::min<LONGLONG>(parameters.Length, block.Size() - offset));
    NTSTATUS status = block.Data->Write(offset, data, length);
    *information = NT_SUCCESS(status) ? length : 0;
    return status;
}

NTSTATUS StreamFileSystem::Read(FLT_IO_PARAMETER_BLOCK& operation, ULONG_PTR* information)
{
    const PFILE_OBJECT file = operation.TargetFileObject;
    ControlBlock* block = BlockOf(file);
    if (block == nullptr || block->Map == nullptr)
    {
        return STATUS_INVALID_DEVICE_REQUEST;
    }
    const auto& parameters = operation.Parameters.Read;
    const LONGLONG offset = parameters.ByteOffset.QuadPart;
    if (!NT_SUCCESS(CheckRange(offset, parameters.Length)))
    {
        return STATUS_INVALID_PARAMETER;
    }
    if (parameters.Length == 0)
    {
        return STATUS_SUCCESS;
    }
    if (operation.IrpFlags & IRP_PAGING_IO)
    {
        return ReadPages(*block, operation, information);
    }
    const bool cached = !(operation.IrpFlags & IRP_NOCACHE);
    if (cached && HasFlag(file, FO_CLEANUP_COMPLETE))
    {
        return STATUS_FILE_CLOSED;
    }
    if (!cached && !IsSectorAligned(offset, parameters.Length))
    {
        return STATUS_INVALID_PARAMETER;
    }
    void* data = DataAddress(parameters.MdlAddress, parameters.ReadBuffer);
    std::shared_lock main(block->Main);
    if (offset >= block->Size())
    {
        return STATUS_END_OF_FILE;
    }
    const ULONG length = static_cast<ULONG>(std::min<LONGLONG>(parameters.Length, block->Size() - offset));
    if (!cached)
    {
        return ReadNonCached(*block, offset, length, data, information);
    }
    StartCaching(file, *block);
    NTSTATUS status = CacheRead(block->Map, offset, data, length, IsUserAddress(data), information);
    *information = NT_SUCCESS(status) ? *information : 0;
    return status;
}

// Shared main lock held; the range lies within the file size.
NTSTATUS StreamFileSystem::ReadNonCached(
    ControlBlock& block, LONGLONG offset, ULONG length, void* data, ULONG_PTR* information)
{
    NTSTATUS status = CacheFlush(block.Map, offset, length);
    if (!NT_SUCCESS(status))
    {
        return status;
    }
    CachePurge(block.Map, offset, length);
    const auto read = [&](void* to, ULONG done, ULONG step)
    {
        std::shared_lock inner(block.Inner);
        return block.Discarded ? STATUS_FILE_DELETED : block.Data->Read(offset + done, to, step);
    };
    if (IsUserAddress(data))
    {
        status = Bounce(length,
            [&](UCHAR* buffer, ULONG done, ULONG step)
            {
                const NTSTATUS result = read(buffer, done, step);
                return NT_SUCCESS(result) ? GuardedCopy(static_cast<UCHAR*>(data) + done, buffer, step) : result;
            });
    }
    else
    {
        status = read(data, 0, length);
    }
    *information = NT_SUCCESS(status) ? length : 0;
    return status;
}

NTSTATUS StreamFileSystem::Write(FLT_IO_PARAMETER_BLOCK& operation, ULONG_PTR* information)
{
    const PFILE_OBJECT file = operation.TargetFileObject;
    ControlBlock* block = BlockOf(file);
    if (block == nullptr || block->Map == nullptr)
    {
        return STATUS_INVALID_DEVICE_REQUEST;
    }
    const auto& parameters = operation.Parameters.Write;
    const bool append = parameters.ByteOffset.QuadPart == -1;
    if (!append && !NT_SUCCESS(CheckRange(parameters.ByteOffset.QuadPart, parameters.Length)))
    {
        return STATUS_INVALID_PARAMETER;
    }
    if (parameters.Length == 0)
    {
        return STATUS_SUCCESS;
    }
    if (operation.IrpFlags & IRP_PAGING_IO)
    {
        return append ? STATUS_INVALID_PARAMETER : WritePages(*block, operation, information);
    }
    const bool cached = !(operation.IrpFlags & IRP_NOCACHE);
    if (cached && HasFlag(file, FO_CLEANUP_COMPLETE))
    {
        return STATUS_FILE_CLOSED;
    }
    const void* data = DataAddress(parameters.MdlAddress, parameters.WriteBuffer);
    NTSTATUS status;
    {
        std::unique_lock main(block->Main);
        const LONGLONG offset = append ? block->Size() : parameters.ByteOffset.QuadPart;
        if (!cached)
        {
            status = IsSectorAligned(offset, parameters.Length)
                         ? WriteNonCached(*block, offset, parameters.Length, data, information)
                         : STATUS_INVALID_PARAMETER;
        }
        else
        {
            StartCaching(file, *block);
            status = WriteCached(*block, offset, parameters.Length, data, information);
            if (NT_SUCCESS(status) && HasFlag(file, FO_WRITE_THROUGH))
            {
                status = CacheFlush(block->Map, offset, parameters.Length);
            }
        }
    }
    *information = NT_SUCCESS(status) ? *information : 0;
    if (NT_SUCCESS(status))
    {
        Written(*block);
    }
    return status;
}

// Main lock held.
NTSTATUS StreamFileSystem::ReserveRoom(ControlBlock& block, LONGLONG begin, LONGLONG end)
{
    std::lock_guard inner(block.Inner);
    return block.Discarded ? STATUS_FILE_DELETED : block.Data->Reserve(begin, end - begin);
}

// Main lock held.
NTSTATUS StreamFileSystem::WriteCached(
    ControlBlock& block, LONGLONG offset, ULONG length, const void* data, ULONG_PTR* information)
{
    const LONGLONG oldSize = block.Size();
    NTSTATUS status = STATUS_SUCCESS;
    if (offset + length > oldSize)
    {
        // While the writer can still be told that there is no room.
        status = ReserveRoom(block, std::max(offset, oldSize), offset + length);
        status = NT_SUCCESS(status) ? Resize(block, offset + length, true) : status;
    }
    if (!NT_SUCCESS(status))
    {
        return status;
    }
    status = CacheWrite(block.Map, offset, data, length, IsUserAddress(data), information);
    if (!NT_SUCCESS(status) && offset + length > oldSize)
    {
        // The caller is told of no bytes, so the file does not grow by them.
        Resize(block, oldSize, true);
    }
    return status;
}

// Main lock held.
NTSTATUS StreamFileSystem::WriteNonCached(
    ControlBlock& block, LONGLONG offset, ULONG length, const void* data, ULONG_PTR* information)
{
    const LONGLONG oldSize = block.Size();
    NTSTATUS status = STATUS_SUCCESS;
    if (offset + length > oldSize)
    {
        status = Resize(block, offset + length, !strictEndOfFile_);
        // With the old and the new end of file in it, all of which must be on disk before the data.
        status = NT_SUCCESS(status) ? CacheFlush(block.Map, std::min(oldSize, offset), 0) : status;
    }
    else
    {
        status = CacheFlush(block.Map, offset, length);
    }
    const LONGLONG first = block.Data->WriteFirst();
    if (NT_SUCCESS(status) && first >= 0 && first < offset)
    {
        status = CacheFlush(block.Map, first, 1);
    }
    if (NT_SUCCESS(status))
    {
        CachePurge(block.Map, offset, length);
        status = WriteStore(block, offset, length, data);
    }
    *information = NT_SUCCESS(status) ? length : 0;
    if (!NT_SUCCESS(status) && block.Size() > oldSize)
    {
        Resize(block, oldSize, !strictEndOfFile_);
    }
    return status;
}

NTSTATUS StreamFileSystem::WriteStore(ControlBlock& block, LONGLONG offset, ULONG length, const void* data)
{
    const auto write = [&](const void* from, ULONG done, ULONG step)
    {
        std::lock_guard inner(block.Inner);
        return block.Discarded ? STATUS_FILE_DELETED : block.Data->Write(offset + done, from, step);
    };
    if (!IsUserAddress(data))
    {
        return write(data, 0, length);
    }
    return Bounce(length,
        [&](UCHAR* buffer, ULONG done, ULONG step)
        {
            const NTSTATUS result = GuardedCopy(buffer, static_cast<const UCHAR*>(data) + done, step);
            return NT_SUCCESS(result) ? write(buffer, done, step) : result;
        });
}
}
