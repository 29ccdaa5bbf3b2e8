// Opening, reading and writing files.
#include "live/mount/operations.h"
#include "live/mount/replies.h"

#include "hosted/io/file_object.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <linux/falloc.h>
#include <memory>
#include <mutex>
#include <shared_mutex>

namespace live
{
namespace
{
// Non-cached transfers are made of whole sectors; others go through the cache and straight on to the disk.
constexpr size_t SectorBytes = 512;
constexpr size_t LargestTransfer = 1 << 20;

ACCESS_MASK AccessFor(int flags)
{
    constexpr ACCESS_MASK Changing = FILE_WRITE_DATA | FILE_WRITE_ATTRIBUTES;
    // The kernel's page cache reads the rest of a page that a program writes a part of.
    const bool changes = (flags & O_ACCMODE) != O_RDONLY;
    return LookRights | FILE_READ_DATA | (changes ? Changing : 0);
}

ULONG DispositionFor(int flags)
{
    const bool truncate = (flags & O_TRUNC) != 0;
    if ((flags & O_CREAT) == 0)
    {
        return truncate ? FILE_OVERWRITE : FILE_OPEN;
    }
    if ((flags & O_EXCL) != 0)
    {
        return FILE_CREATE;
    }
    return truncate ? FILE_OVERWRITE_IF : FILE_OPEN_IF;
}

// Opens what the flags ask for, with open(wish, file) that gives 0 or the errno value, as this does.
int OpenHandleFiles(int flags, const hosted::FolderCreation* creation, OpenHandle* handle, auto&& open)
{
    OpenWish wish = {.Access = AccessFor(flags),
        .Disposition = DispositionFor(flags),
        .Options = FILE_NON_DIRECTORY_FILE,
        .Creation = creation};
    const int error = open(wish, &handle->File);
    if (error != 0 || (flags & O_DIRECT) == 0)
    {
        return error;
    }
    wish.Disposition = FILE_OPEN;
    wish.Options |= FILE_NO_INTERMEDIATE_BUFFERING;
    wish.Creation = nullptr;
    return open(wish, &handle->Direct);
}

// The file object that a transfer is to use.
PFILE_OBJECT FileFor(OpenHandle& handle, const fuse_file_info* info, off_t offset, size_t size)
{
    const bool direct = handle.Direct && (info->flags & O_DIRECT) != 0 && !info->writepage &&
                        offset % SectorBytes == 0 && size % SectorBytes == 0;
    return direct ? handle.Direct.Get() : handle.File.Get();
}

// The file's size lock is held, alone. A filter that enciphers takes a non-cached write for one of as much as the file
// holds at that moment, and what goes beyond would be lost with it. So the file is first made as long as it is going to
// be.
NTSTATUS MakeRoom(PFILE_OBJECT file, LONGLONG end)
{
    struct stat info = {};
    if (hosted::FolderStat(file, &info) != 0)
    {
        return STATUS_UNEXPECTED_IO_ERROR;
    }
    return end > info.st_size ? hosted::SetEndOfFile(file, end) : STATUS_SUCCESS;
}

NTSTATUS WriteZeros(PFILE_OBJECT file, LONGLONG offset, LONGLONG end)
{
    static const std::vector<UCHAR> zeros(LargestTransfer);
    NTSTATUS status = STATUS_SUCCESS;
    while (offset < end && NT_SUCCESS(status))
    {
        const ULONG length = static_cast<ULONG>(std::min<LONGLONG>(end - offset, LargestTransfer));
        IO_STATUS_BLOCK result = {};
        status = hosted::WriteFile(file, offset, zeros.data(), length, &result);
        offset += length;
    }
    return status;
}

// Whoever has it open may ask for a flush, whatever the file was opened for.
NTSTATUS Flush(PFILE_OBJECT file)
{
    hosted::FileRequest flush = hosted::NewFileRequest(file, IRP_MJ_FLUSH_BUFFERS, IRP_SYNCHRONOUS_API);
    IO_STATUS_BLOCK status = {};
    return hosted::SendFileRequest(flush, &status);
}

// The file's size lock is held, alone.
NTSTATUS Reserve(PFILE_OBJECT file, int mode, LONGLONG offset, LONGLONG length)
{
    struct stat info = {};
    if (hosted::FolderStat(file, &info) != 0)
    {
        return STATUS_UNEXPECTED_IO_ERROR;
    }
    const LONGLONG end = offset + length;
    NTSTATUS status = STATUS_SUCCESS;
    if ((mode & FALLOC_FL_PUNCH_HOLE) == 0)
    {
        status = hosted::FolderReserve(file, offset, length);
    }
    if (NT_SUCCESS(status) && (mode & (FALLOC_FL_PUNCH_HOLE | FALLOC_FL_ZERO_RANGE)) != 0)
    {
        status = WriteZeros(file, offset, std::min<LONGLONG>(end, info.st_size));
    }
    if (!NT_SUCCESS(status))
    {
        return status;
    }
    if ((mode & FALLOC_FL_KEEP_SIZE) != 0 || end <= info.st_size)
    {
        return STATUS_SUCCESS;
    }
    return hosted::SetEndOfFile(file, end);
}
}

void Open(fuse_req_t request, fuse_ino_t node, fuse_file_info* info)
{
    AsRequester(request,
        [&]
        {
            MountState& state = StateOf(request);
            auto handle = std::make_unique<OpenHandle>();
            handle->Node = node;
            int error;
            {
                const std::shared_lock names(state.Names);
                error = OpenHandleFiles(info->flags & ~O_CREAT, nullptr, handle.get(),
                    [&](const OpenWish& wish, OpenedFile* file) { return OpenNode(state, node, wish, file); });
            }
            if (error == 0 && (info->flags & O_TRUNC) != 0)
            {
                error = DropPowers(request, handle->File.Get());
            }
            if (error != 0)
            {
                return error;
            }
            // The pages that the host's kernel holds of the file are those that this volume would give: every change
            // comes through it.
            info->keep_cache = 1;
            HandOver(state, std::move(handle), info, [&] { return fuse_reply_open(request, info); });
            return 0;
        });
}

void Create(fuse_req_t request, fuse_ino_t parent, const char* name, mode_t mode, fuse_file_info* info)
{
    WithName(request, parent, name,
        [&](const hosted::WideString& path, const hosted::WideString& wide)
        {
            MountState& state = StateOf(request);
            const hosted::FolderCreation creation = CreationBy(request, mode);
            auto handle = std::make_unique<OpenHandle>();
            const int failure = OpenHandleFiles(info->flags | O_CREAT, &creation, handle.get(),
                [&](const OpenWish& wish, OpenedFile* file)
                {
                    *file = OpenedFile(path, wish);
                    return ErrorFromStatus(file->Status());
                });
            if (failure != 0)
            {
                return failure;
            }
            fuse_entry_param entry = {};
            if (const int error = hosted::FolderStat(handle->File.Get(), &entry.attr))
            {
                return error;
            }
            entry.ino = state.Nodes.Enter(parent, wide, entry.attr);
            handle->Node = entry.ino;
            info->keep_cache = 1;
            const auto reply = [&] { return fuse_reply_create(request, &entry, info); };
            if (!HandOver(state, std::move(handle), info, reply))
            {
                state.Forget(entry.ino, 1);
            }
            return 0;
        });
}

void Read(fuse_req_t request, fuse_ino_t, size_t size, off_t offset, fuse_file_info* info)
{
    // Aligned, so that a non-cached read needs no copy on its way.
    static thread_local std::unique_ptr<char, decltype(&std::free)> buffer(
        static_cast<char*>(std::aligned_alloc(PAGE_SIZE, LargestTransfer)), &std::free);
    OpenHandle& handle = *HandleOf(info);
    const ULONG length = static_cast<ULONG>(std::min(size, LargestTransfer));
    IO_STATUS_BLOCK result = {};
    const NTSTATUS status =
        hosted::ReadFile(FileFor(handle, info, offset, length), offset, buffer.get(), length, &result);
    if (!NT_SUCCESS(status) && status != STATUS_END_OF_FILE)
    {
        ReplyStatus(request, status);
        return;
    }
    fuse_reply_buf(request, buffer.get(), status == STATUS_END_OF_FILE ? 0 : result.Information);
}

void Write(fuse_req_t request, fuse_ino_t, const char* data, size_t size, off_t offset, fuse_file_info* info)
{
    OpenHandle& handle = *HandleOf(info);
    const PFILE_OBJECT file = FileFor(handle, info, offset, size);
    const bool cached = file == handle.File.Get();
    // What the kernel's page cache writes later was judged when it was written there.
    if (const int error = info->writepage ? 0 : DropPowers(request, file))
    {
        fuse_reply_err(request, error);
        return;
    }
    common::FairSharedMutex& sizeLock = StateOf(request).SizeLockOf(handle.Node);
    IO_STATUS_BLOCK result = {};
    NTSTATUS status = STATUS_SUCCESS;
    if (!cached)
    {
        std::lock_guard alone(sizeLock);
        status = MakeRoom(file, offset + static_cast<LONGLONG>(size));
    }
    if (NT_SUCCESS(status))
    {
        std::shared_lock writing(sizeLock);
        status = hosted::WriteFile(file, offset, data, static_cast<ULONG>(size), &result);
    }
    if (NT_SUCCESS(status) && cached && (info->flags & O_DIRECT) != 0 && !info->writepage)
    {
        status = Flush(file);
    }
    if (!NT_SUCCESS(status))
    {
        ReplyStatus(request, status);
        return;
    }
    fuse_reply_write(request, result.Information);
}

void Release(fuse_req_t request, fuse_ino_t, fuse_file_info* info)
{
    StateOf(request).Handles.Remove(HandleOf(info));
    fuse_reply_err(request, 0);
}

void Synchronize(fuse_req_t request, fuse_ino_t, int, fuse_file_info* info)
{
    ReplyStatus(request, Flush(HandleOf(info)->File.Get()));
}

void Allocate(fuse_req_t request, fuse_ino_t, int mode, off_t offset, off_t length, fuse_file_info* info)
{
    constexpr int Known = FALLOC_FL_KEEP_SIZE | FALLOC_FL_PUNCH_HOLE | FALLOC_FL_ZERO_RANGE;
    if ((mode & ~Known) != 0)
    {
        fuse_reply_err(request, EOPNOTSUPP);
        return;
    }
    OpenHandle& handle = *HandleOf(info);
    NTSTATUS status;
    {
        std::lock_guard alone(StateOf(request).SizeLockOf(handle.Node));
        status = Reserve(handle.File.Get(), mode, offset, length);
    }
    ReplyStatus(request, status);
}
}
