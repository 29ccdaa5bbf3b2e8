// Opening and creating files, directories, streams and the volume.
#include "hosted/fs/store/store_file_system.h"

#include "hosted/ke/system_time.h"

namespace hosted
{
namespace
{
ULONG FileAttributes(ULONG asked)
{
    return (asked & SettableAttributes & ~FILE_ATTRIBUTE_NORMAL) | FILE_ATTRIBUTE_ARCHIVE;
}
}

NTSTATUS StoreFileSystem::OpenTarget(CreateRequest& request)
{
    std::lock_guard guard(tree_);
    return OpenLocked(request);
}

NTSTATUS StoreFileSystem::OpenLocked(CreateRequest& request)
{
    if (request.VolumeOpen)
    {
        request.Information = FILE_OPENED;
        if (request.WantsDirectory())
        {
            return STATUS_NOT_A_DIRECTORY;
        }
        if (request.Disposition != FILE_OPEN && request.Disposition != FILE_OPEN_IF)
        {
            return STATUS_ACCESS_DENIED;
        }
        NTSTATUS status = AttachOpen(request, volumeNode_.get(), volumeNode_->Streams.begin()->second.get());
        request.File->Flags |= NT_SUCCESS(status) ? FO_VOLUME_OPEN : 0;
        return status;
    }
    Node* parent = nullptr;
    Node* node = nullptr;
    NTSTATUS status = FindTarget(request, &parent, &node);
    if (!NT_SUCCESS(status))
    {
        return status;
    }
    return node != nullptr ? OpenExisting(request, node) : CreateNew(request, parent, request.Path.Components.back());
}

// *node stays null where a file of that name could be created in *parent.
NTSTATUS StoreFileSystem::FindTarget(CreateRequest& request, Node** parent, Node** node)
{
    if (request.ById())
    {
        if (!NeedsExisting(request.Disposition) && request.Disposition != FILE_OPEN_IF)
        {
            return STATUS_INVALID_PARAMETER;
        }
        return NodeByFileId(View(request.File->FileName), node);
    }
    const std::vector<WideString>& components = request.Path.Components;
    Node* start = StartOf(request.File);
    if (start->Deleted)
    {
        return STATUS_DELETE_PENDING;
    }
    if (components.empty())
    {
        *node = start;
        return STATUS_SUCCESS;
    }
    NTSTATUS status = Walk(start, components, components.size() - 1, parent);
    if (!NT_SUCCESS(status) || !(*parent)->Info.Directory)
    {
        return STATUS_OBJECT_PATH_NOT_FOUND;
    }
    *node = FindChild(*parent, components.back());
    if (*node == nullptr && NeedsExisting(request.Disposition))
    {
        return STATUS_OBJECT_NAME_NOT_FOUND;
    }
    return STATUS_SUCCESS;
}

NTSTATUS StoreFileSystem::OpenExisting(CreateRequest& request, Node* node)
{
    if (node->DeletePending || node->Deleted)
    {
        return STATUS_DELETE_PENDING;
    }
    auto found = node->Streams.find(request.Path.Stream);
    const bool exists = found != node->Streams.end();
    if (exists && request.Disposition == FILE_CREATE)
    {
        return STATUS_OBJECT_NAME_COLLISION;
    }
    const bool asDirectory = node->Info.Directory && !request.Path.StreamGiven;
    if (asDirectory && (request.WantsFile() || Overwrites(request.Disposition)))
    {
        return STATUS_FILE_IS_A_DIRECTORY;
    }
    if (!asDirectory && request.WantsDirectory())
    {
        return STATUS_NOT_A_DIRECTORY;
    }
    if (!asDirectory && request.Path.TrailingBackslash)
    {
        return STATUS_OBJECT_NAME_INVALID;
    }
    if (node->Info.Directory && request.Path.StreamGiven && request.Path.Stream.empty())
    {
        // A directory has no unnamed data.
        return STATUS_FILE_IS_A_DIRECTORY;
    }
    const bool readOnly = (node->Info.Attributes & FILE_ATTRIBUTE_READONLY) && !asDirectory;
    if (readOnly && ((request.Access & DataWriteRights) || Overwrites(request.Disposition) || !exists))
    {
        return STATUS_ACCESS_DENIED;
    }
    if ((request.Options & FILE_DELETE_ON_CLOSE) && (readOnly || node == root_.get()))
    {
        return STATUS_CANNOT_DELETE;
    }
    Stream* stream = nullptr;
    if (!exists)
    {
        NTSTATUS status = NeedsExisting(request.Disposition) ? STATUS_OBJECT_NAME_NOT_FOUND
                                                             : AddStream(node, request.Path.Stream, &stream);
        request.Information = FILE_CREATED;
        return NT_SUCCESS(status) ? AttachOpen(request, node, stream) : status;
    }
    stream = found->second.get();
    request.Truncate = Overwrites(request.Disposition);
    request.Information = request.Disposition == FILE_SUPERSEDE ? FILE_SUPERSEDED
                          : request.Truncate                    ? FILE_OVERWRITTEN
                                                                : FILE_OPENED;
    return stream->DeletePending ? STATUS_DELETE_PENDING : AttachOpen(request, node, stream);
}

NTSTATUS StoreFileSystem::CreateNew(CreateRequest& request, Node* parent, WideView name)
{
    const bool directory = request.WantsDirectory();
    if (directory && request.Path.StreamGiven)
    {
        return STATUS_NOT_A_DIRECTORY;
    }
    if (!directory && request.Path.TrailingBackslash)
    {
        return STATUS_OBJECT_NAME_INVALID;
    }
    const bool readOnly = (request.Attributes & FILE_ATTRIBUTE_READONLY) != 0;
    if ((request.Options & FILE_DELETE_ON_CLOSE) && readOnly)
    {
        return STATUS_CANNOT_DELETE;
    }
    if (!request.Path.Stream.empty() && !store_->CanHold(name, request.Path.Stream))
    {
        return STATUS_OBJECT_NAME_INVALID;
    }
    const ULONG attributes =
        directory ? (request.Attributes & SettableAttributes & ~FILE_ATTRIBUTE_NORMAL) | FILE_ATTRIBUTE_DIRECTORY
                  : FileAttributes(request.Attributes);
    Node* node = nullptr;
    NTSTATUS status = AddNode(parent, name, directory, attributes, &node);
    if (!NT_SUCCESS(status))
    {
        return status;
    }
    Stream* stream = node->Streams.begin()->second.get();
    if (!request.Path.Stream.empty())
    {
        status = AddStream(node, request.Path.Stream, &stream);
        if (!NT_SUCCESS(status))
        {
            std::vector<std::shared_ptr<ControlBlock>> none;
            RemoveNode(node, &none);
            return status;
        }
    }
    request.Information = FILE_CREATED;
    return AttachOpen(request, node, stream);
}

NTSTATUS StoreFileSystem::AttachOpen(CreateRequest& request, Node* node, Stream* stream)
{
    NTSTATUS status = stream->Active ? CheckSharing(*stream->Active, request) : STATUS_SUCCESS;
    if (!NT_SUCCESS(status))
    {
        return status;
    }
    Attach(request, BlockFor(node, stream), std::make_unique<OpenContext>());
    ++node->Handles;
    ++stream->Handles;
    return STATUS_SUCCESS;
}

void StoreFileSystem::Overwritten(ControlBlock& replaced, const CreateRequest& request)
{
    auto& block = static_cast<StoreBlock&>(replaced);
    std::vector<std::shared_ptr<ControlBlock>> discard;
    {
        std::lock_guard guard(tree_);
        Node* node = block.Owner.get();
        node->Info.LastWriteTime = node->Info.ChangeTime = SystemTime();
        if (block.Record->Name.empty() && !node->Deleted)
        {
            node->Info.Attributes = FileAttributes(request.Attributes);
            // The other streams belonged to the old contents; those that are open stay.
            std::vector<Stream*> old;
            for (auto& [name, stream] : node->Streams)
            {
                if (!name.empty() && stream->Handles == 0)
                {
                    old.push_back(stream.get());
                }
            }
            for (Stream* stream : old)
            {
                RemoveStream(node, stream, &discard);
            }
        }
        node->Changed = true;
        SaveIfChanged(node);
    }
    Discard(discard);
}
}
