// Streams of nodes and their control blocks, from the first open to the last handle.
#include "hosted/fs/store/store_file_system.h"

#include "hosted/ke/system_time.h"

namespace hosted
{
std::shared_ptr<ControlBlock> StoreFileSystem::BlockFor(Node* node, Stream* stream)
{
    if (!stream->Active)
    {
        const bool directory = node->Info.Directory && stream->Name.empty();
        const StreamKind kind = node == volumeNode_.get() ? StreamKind::Volume
                                : directory               ? StreamKind::Directory
                                                          : StreamKind::Data;
        auto block =
            std::make_shared<StoreBlock>(*this, kind, node->shared_from_this(), node->Streams.at(stream->Name));
        if (kind == StreamKind::Data)
        {
            block->Data = store_->OpenStream(node->Info.Id, stream->Name);
        }
        Activate(block);
        stream->Active = std::move(block);
    }
    return stream->Active;
}

void StoreFileSystem::TornDown(ControlBlock& block)
{
    Stream& stream = *static_cast<StoreBlock&>(block).Record;
    stream.Size = block.Size();
    stream.Active = nullptr;
}

void StoreFileSystem::Written(ControlBlock& block)
{
    std::lock_guard guard(tree_);
    Node& node = *static_cast<StoreBlock&>(block).Owner;
    StoredNode& info = node.Info;
    info.LastWriteTime = info.ChangeTime = info.LastAccessTime = SystemTime();
    info.Attributes |= FILE_ATTRIBUTE_ARCHIVE;
    info.Attributes &= ~FILE_ATTRIBUTE_NORMAL;
    node.Changed = true;
}

void StoreFileSystem::Cleanup(PFILE_OBJECT file)
{
    OpenContext* open = OpenOf(file);
    if (open == nullptr)
    {
        return;
    }
    std::vector<std::shared_ptr<ControlBlock>> discard;
    NTSTATUS removal = STATUS_SUCCESS;
    {
        std::lock_guard guard(tree_);
        const StoreBlock* block = StoreBlockOf(file);
        Node* node = block->Owner.get();
        Stream* stream = block->Record.get();
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
}
}
