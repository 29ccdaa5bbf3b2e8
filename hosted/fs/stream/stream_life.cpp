// The life of control blocks: from the first open of a stream to its teardown.
#include "hosted/fs/stream/stream_file_system.h"

#include "hosted/flt/filter_manager.h"
#include "hosted/io/file_object.h"
#include "hosted/ke/bug_check.h"

#include <algorithm>

namespace hosted
{
namespace
{
// Any value that no other file system's headers have.
constexpr CSHORT ControlBlockType = 0x0702;
}

ControlBlock::ControlBlock(StreamFileSystem& files, StreamKind kind, LONGLONG size)
    : FSRTL_COMMON_FCB_HEADER{}, Files(files), Kind(kind)
{
    NodeTypeCode = ControlBlockType;
    NodeByteSize = sizeof(FSRTL_COMMON_FCB_HEADER);
    SetSize(size);
}

void ControlBlock::SetSize(LONGLONG size)
{
    __atomic_store_n(&AllocationSize.QuadPart, AllocationFor(size), __ATOMIC_RELAXED);
    __atomic_store_n(&FileSize.QuadPart, size, __ATOMIC_RELAXED);
    __atomic_store_n(&ValidDataLength.QuadPart, size, __ATOMIC_RELAXED);
}

LONGLONG StreamCache::FileSize() const
{
    return block_.Size();
}

PFILE_OBJECT StreamCache::PagingFileObject()
{
    std::call_once(block_.PagingFileMade,
        [this]
        {
            PFILE_OBJECT file =
                NewFileObject(block_.Files.TargetVolume().Disk, {}, FILE_READ_DATA | FILE_WRITE_DATA, KernelMode);
            file->FsContext = static_cast<PFSRTL_COMMON_FCB_HEADER>(&block_);
            file->SectionObjectPointer = &block_.Sections;
            file->Flags |= FO_STREAM_FILE;
            block_.PagingFile = file;
        });
    return block_.PagingFile;
}

LONGLONG StreamCache::WriteFirst() const
{
    return block_.Data->WriteFirst();
}

std::function<void()> StreamCache::BecameClean()
{
    // While someone has the stream open his close looks after it.
    if (block_.OpenCount != 0)
    {
        return {};
    }
    return [block = block_.shared_from_this()] { block->Files.TryTearDown(block); };
}

void StreamFileSystem::Activate(const std::shared_ptr<ControlBlock>& block)
{
    if (block->Kind == StreamKind::Data)
    {
        block->Map = CreateCacheMap(block->Cached);
        block->Sections.SharedCacheMap = block->Map;
    }
    active_.insert(block);
}

void StreamFileSystem::RequireNothingActive()
{
    std::lock_guard guard(tree_);
    if (!active_.empty())
    {
        BugCheck("FILE_SYSTEM", "a volume is dismounted with %zu streams open or dirty", active_.size());
    }
}

void StreamFileSystem::TryTearDown(const std::shared_ptr<ControlBlock>& block)
{
    {
        std::lock_guard guard(tree_);
        if (block->OpenCount != 0 || block->TornDown || (block->Map != nullptr && CacheHasDirtyPages(block->Map)))
        {
            return;
        }
        block->TornDown = true;
        TornDown(*block);
    }
    FilterStreamDeleted(block.get());
    if (block->Map != nullptr)
    {
        DeleteCacheMap(block->Map);
    }
    if (block->PagingFile != nullptr)
    {
        block->PagingFile->FsContext = nullptr;
        DereferenceObject(block->PagingFile);
    }
    // The last thing that is counted: whoever sees no active streams may destroy the file system.
    std::lock_guard guard(tree_);
    active_.erase(block);
}

void StreamFileSystem::Release(const std::shared_ptr<ControlBlock>& block)
{
    {
        std::lock_guard guard(tree_);
        --block->OpenCount;
    }
    TryTearDown(block);
}

void StreamFileSystem::Discard(const std::vector<std::shared_ptr<ControlBlock>>& blocks)
{
    for (const std::shared_ptr<ControlBlock>& block : blocks)
    {
        if (block->Map != nullptr)
        {
            std::unique_lock main(block->Main);
            CacheResize(block->Map, 0, false,
                [&]
                {
                    std::lock_guard inner(block->Inner);
                    block->Discarded = true;
                    block->SetSize(0);
                    return STATUS_SUCCESS;
                });
        }
        Release(block);
    }
}

NTSTATUS StreamFileSystem::Resize(ControlBlock& block, LONGLONG newSize, bool rewriteEnds)
{
    return CacheResize(block.Map, newSize, rewriteEnds,
        [&]
        {
            std::lock_guard inner(block.Inner);
            NTSTATUS status = block.Discarded ? STATUS_FILE_DELETED : block.Data->SetSize(newSize);
            if (NT_SUCCESS(status))
            {
                block.SetSize(newSize);
            }
            return status;
        });
}

NTSTATUS StreamFileSystem::Close(PFILE_OBJECT file)
{
    OpenContext* open = OpenOf(file);
    if (open == nullptr)
    {
        return STATUS_SUCCESS;
    }
    Cleanup(file);
    std::shared_ptr<ControlBlock> block = open->Block;
    file->FsContext = nullptr;
    file->FsContext2 = nullptr;
    file->SectionObjectPointer = nullptr;
    {
        std::lock_guard guard(tree_);
        std::erase(block->Opens, open);
        Closing(*open);
        --block->OpenCount;
    }
    delete open;
    TryTearDown(block);
    return STATUS_SUCCESS;
}

NTSTATUS StreamFileSystem::Flush(PFILE_OBJECT file)
{
    ControlBlock* block = BlockOf(file);
    if (block == nullptr)
    {
        return STATUS_INVALID_PARAMETER;
    }
    return block->Kind == StreamKind::Volume ? FlushAll() : FlushStream(*block);
}

NTSTATUS StreamFileSystem::FlushStream(ControlBlock& block)
{
    NTSTATUS status = STATUS_SUCCESS;
    if (block.Map != nullptr)
    {
        std::shared_lock main(block.Main);
        status = CacheFlush(block.Map, 0, 0);
    }
    return NT_SUCCESS(status) ? SyncStore(block) : status;
}

NTSTATUS StreamFileSystem::FlushAll()
{
    std::vector<std::shared_ptr<ControlBlock>> all;
    {
        std::lock_guard guard(tree_);
        for (const std::shared_ptr<ControlBlock>& block : active_)
        {
            if (block->Map != nullptr && !block->TornDown)
            {
                // Counted like an open, so that the cache map stays.
                ++block->OpenCount;
                all.push_back(block);
            }
        }
    }
    NTSTATUS first = STATUS_SUCCESS;
    for (const std::shared_ptr<ControlBlock>& block : all)
    {
        const NTSTATUS status = FlushStream(*block);
        first = NT_SUCCESS(first) ? status : first;
        Release(block);
    }
    return first;
}
}
