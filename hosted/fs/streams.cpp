// The life of control blocks: from the first open of a stream to its teardown.
#include "hosted/fs/disk_file_system.h"

#include "hosted/flt/filter_manager.h"
#include "hosted/io/file_object.h"
#include "hosted/ke/bug_check.h"
#include "hosted/ke/system_time.h"

#include <algorithm>

namespace host
{
namespace
{
// Any value that no other file system's headers have.
constexpr CSHORT ControlBlockType = 0x0702;
}

ControlBlock::ControlBlock(DiskFileSystem& files, std::shared_ptr<Node> node, std::shared_ptr<Stream> stream)
    : FSRTL_COMMON_FCB_HEADER{}, Files(files), Owner(std::move(node)), Record(std::move(stream))
{
    NodeTypeCode = ControlBlockType;
    NodeByteSize = sizeof(FSRTL_COMMON_FCB_HEADER);
    SetSize(Record->Size);
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
    if (block_.PagingFile == nullptr)
    {
        block_.PagingFile = NewFileObject(
            block_.Files.TargetVolume().Disk, {}, FILE_READ_DATA | FILE_WRITE_DATA, KernelMode);
        block_.PagingFile->FsContext = static_cast<PFSRTL_COMMON_FCB_HEADER>(&block_);
        block_.PagingFile->SectionObjectPointer = &block_.Sections;
        block_.PagingFile->Flags |= FO_STREAM_FILE;
    }
    return block_.PagingFile;
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

CacheMap* CacheMapOf(PFILE_OBJECT file)
{
    const ControlBlock* block = BlockOf(file);
    return block == nullptr ? nullptr : block->Map;
}

std::shared_ptr<ControlBlock> DiskFileSystem::Activate(Node* node, Stream* stream)
{
    if (!stream->Active)
    {
        const bool directory = node == volumeNode_.get() || (node->Info.Directory && stream->Name.empty());
        auto record = node->Streams.at(stream->Name);
        auto block = std::make_shared<ControlBlock>(*this, node->shared_from_this(), std::move(record));
        if (!directory)
        {
            block->Data = store_->OpenStream(node->Info.Id, stream->Name);
            block->Map = CreateCacheMap(block->Cached);
            block->Sections.SharedCacheMap = block->Map;
        }
        stream->Active = std::move(block);
        ++activeStreams_;
    }
    return stream->Active;
}

void DiskFileSystem::TryTearDown(const std::shared_ptr<ControlBlock>& block)
{
    {
        std::lock_guard guard(tree_);
        if (block->OpenCount != 0 || block->TornDown || (block->Map != nullptr && CacheHasDirtyPages(block->Map)))
        {
            return;
        }
        // From here on an open makes a new control block.
        block->TornDown = true;
        block->Record->Size = block->Size();
        block->Record->Active = nullptr;
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
    --activeStreams_;
}

void DiskFileSystem::Release(const std::shared_ptr<ControlBlock>& block)
{
    {
        std::lock_guard guard(tree_);
        --block->OpenCount;
    }
    TryTearDown(block);
}

void DiskFileSystem::Discard(const std::vector<std::shared_ptr<ControlBlock>>& blocks)
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

NTSTATUS DiskFileSystem::Resize(ControlBlock& block, LONGLONG newSize, bool rewriteEnds)
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

void DiskFileSystem::Written(ControlBlock& block)
{
    std::lock_guard guard(tree_);
    StoredNode& info = block.Owner->Info;
    info.LastWriteTime = info.ChangeTime = info.LastAccessTime = SystemTime();
    info.Attributes |= FILE_ATTRIBUTE_ARCHIVE;
    info.Attributes &= ~FILE_ATTRIBUTE_NORMAL;
    block.Owner->Changed = true;
}

NTSTATUS DiskFileSystem::Cleanup(PFILE_OBJECT file)
{
    OpenContext* open = OpenOf(file);
    if (open == nullptr)
    {
        return STATUS_SUCCESS;
    }
    std::vector<std::shared_ptr<ControlBlock>> discard;
    NTSTATUS removal = STATUS_SUCCESS;
    {
        std::lock_guard guard(tree_);
        Node* node = open->Block->Owner.get();
        Stream* stream = open->Block->Record.get();
        if (!open->CleanedUp)
        {
            open->CleanedUp = true;
            --node->Handles;
            --stream->Handles;
        }
        if (open->DeleteOnClose)
        {
            (stream->Name.empty() ? node->DeletePending : stream->DeletePending) = true;
        }
        if (node->DeletePending && !node->Deleted && node->Handles == 0)
        {
            const bool occupied = !node->Children.empty();
            removal = occupied ? STATUS_DIRECTORY_NOT_EMPTY : RemoveNode(node, &discard);
            node->DeletePending = NT_SUCCESS(removal);
        }
        else if (stream->DeletePending && !node->Deleted && stream->Handles == 0)
        {
            removal = RemoveStream(node, stream, &discard);
            stream->DeletePending = false;
        }
        SaveIfChanged(node);
    }
    // Nobody can be told here that a removal failed; the file stays.
    Discard(discard);
    return STATUS_SUCCESS;
}

NTSTATUS DiskFileSystem::Close(PFILE_OBJECT file)
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
        --block->OpenCount;
    }
    delete open;
    TryTearDown(block);
    return STATUS_SUCCESS;
}

NTSTATUS DiskFileSystem::Flush(PFILE_OBJECT file)
{
    ControlBlock* block = BlockOf(file);
    if (block == nullptr)
    {
        return STATUS_INVALID_PARAMETER;
    }
    if (block->Map != nullptr)
    {
        std::shared_lock main(block->Main);
        return CacheFlush(block->Map, 0, 0);
    }
    return block->Owner == volumeNode_ ? FlushAll() : STATUS_SUCCESS;
}

NTSTATUS DiskFileSystem::FlushAll()
{
    std::vector<std::shared_ptr<ControlBlock>> all;
    {
        std::lock_guard guard(tree_);
        for (auto& [id, node] : nodesById_)
        {
            for (auto& [name, stream] : node->Streams)
            {
                if (stream->Active && stream->Active->Map != nullptr)
                {
                    // Counted like an open, so that the cache map stays.
                    ++stream->Active->OpenCount;
                    all.push_back(stream->Active);
                }
            }
        }
    }
    NTSTATUS first = STATUS_SUCCESS;
    for (const std::shared_ptr<ControlBlock>& block : all)
    {
        NTSTATUS status;
        {
            std::shared_lock main(block->Main);
            status = CacheFlush(block->Map, 0, 0);
        }
        first = NT_SUCCESS(first) ? status : first;
        Release(block);
    }
    return first;
}
}
