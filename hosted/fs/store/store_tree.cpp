// The directory tree: loading, looking up, adding and removing.
#include "hosted/fs/store/store_file_system.h"

#include "hosted/ke/system_time.h"

#include <algorithm>
#include <cstring>

namespace hosted
{
LONGLONG Stream::CurrentSize() const
{
    return Active ? Active->Size() : Size;
}

void StoreFileSystem::Load()
{
    std::vector<StoredNode> stored = store_->Load();
    for (StoredNode& each : stored)
    {
        auto node = std::make_shared<Node>();
        for (StoredStream& stream : each.Streams)
        {
            auto added = std::make_shared<Stream>();
            added->Name = stream.Name;
            added->Size = stream.Size;
            node->Streams[stream.Name] = std::move(added);
        }
        node->Info = std::move(each);
        if (node->Info.Directory)
        {
            node->Streams[WideString()] = std::make_shared<Stream>();
        }
        nodesById_[node->Info.Id] = node.get();
        if (node->Info.Id == RootFileId)
        {
            root_ = node;
            continue;
        }
        nextId_ = std::max(nextId_, node->Info.Id + 1);
        node->Parent = nodesById_.at(node->Info.ParentId);
        node->Parent->Children[node->Info.Name] = node;
    }
    // Short names given in earlier runs come before any that must be made now.
    for (bool known : {true, false})
    {
        for (const StoredNode& each : stored)
        {
            Node* node = nodesById_.at(each.Id);
            if (node->Parent != nullptr && known != node->Info.ShortName.empty())
            {
                NameShort(node);
            }
        }
    }
}

void StoreFileSystem::NameShort(Node* node)
{
    Node* parent = node->Parent;
    const auto taken = [&](WideView name)
    { return parent->Children.contains(name) || parent->ShortNames.contains(name); };
    const bool wanted = options_.ShortNames && !IsShortName(node->Info.Name);
    if (wanted && (node->Info.ShortName.empty() || taken(node->Info.ShortName)))
    {
        node->Info.ShortName = MakeShortName(node->Info.Name, taken);
        node->Changed = true;
    }
    if (!wanted)
    {
        node->Info.ShortName.clear();
        return;
    }
    parent->ShortNames[node->Info.ShortName] = node;
}

Node* StoreFileSystem::FindChild(Node* directory, WideView name) const
{
    auto child = directory->Children.find(name);
    if (child != directory->Children.end())
    {
        return child->second.get();
    }
    auto shortName = directory->ShortNames.find(name);
    return shortName == directory->ShortNames.end() ? nullptr : shortName->second;
}

NTSTATUS StoreFileSystem::Walk(Node* start, const std::vector<WideString>& components, size_t count, Node** found) const
{
    Node* node = start;
    for (size_t i = 0; i < count; ++i)
    {
        node = node->Info.Directory ? FindChild(node, components[i]) : nullptr;
        if (node == nullptr)
        {
            return STATUS_OBJECT_PATH_NOT_FOUND;
        }
    }
    *found = node;
    return STATUS_SUCCESS;
}

Node* StoreFileSystem::StartOf(PFILE_OBJECT file) const
{
    const PFILE_OBJECT related = file->RelatedFileObject;
    if (related == nullptr || related->FsContext == nullptr || (related->Flags & FO_VOLUME_OPEN))
    {
        return root_.get();
    }
    return StoreBlockOf(related)->Owner.get();
}

// The name of such an open is the eight bytes of the id, by some callers after a backslash.
NTSTATUS StoreFileSystem::NodeByFileId(WideView name, Node** found) const
{
    constexpr size_t IdLength = sizeof(ULONGLONG) / sizeof(WCHAR);
    if (name.size() == IdLength + 1 && name[0] == L'\\')
    {
        name.remove_prefix(1);
    }
    if (name.size() != IdLength)
    {
        return STATUS_INVALID_PARAMETER;
    }
    ULONGLONG id;
    std::memcpy(&id, name.data(), sizeof(id));
    auto node = nodesById_.find(id);
    if (node == nodesById_.end())
    {
        return STATUS_INVALID_PARAMETER;
    }
    *found = node->second;
    return STATUS_SUCCESS;
}

WideString StoreFileSystem::PathOf(const Node* node) const
{
    if (node->Parent == nullptr)
    {
        return node == root_.get() ? L"\\" : L"";
    }
    WideString path = PathOf(node->Parent);
    if (path.size() > 1)
    {
        path += L'\\';
    }
    return path + node->Info.Name;
}

NTSTATUS StoreFileSystem::AddNode(Node* parent, WideView name, bool directory, ULONG attributes, Node** added)
{
    if (parent->DeletePending || parent->Deleted)
    {
        return STATUS_DELETE_PENDING;
    }
    if (!store_->CanHold(name, {}))
    {
        return STATUS_OBJECT_NAME_INVALID;
    }
    auto node = std::make_shared<Node>();
    node->Info.Id = nextId_;
    node->Info.ParentId = parent->Info.Id;
    node->Info.Name = name;
    node->Info.Directory = directory;
    node->Info.Attributes = attributes;
    node->Info.CreationTime = node->Info.LastAccessTime = node->Info.LastWriteTime = node->Info.ChangeTime =
        SystemTime();
    node->Parent = parent;
    NameShort(node.get());
    NTSTATUS status = store_->Create(node->Info);
    if (!NT_SUCCESS(status))
    {
        parent->ShortNames.erase(node->Info.ShortName);
        return status;
    }
    ++nextId_;
    node->Changed = false;
    node->Streams[WideString()] = std::make_shared<Stream>();
    nodesById_[node->Info.Id] = node.get();
    parent->Children[node->Info.Name] = node;
    parent->Info.LastWriteTime = parent->Info.ChangeTime = node->Info.CreationTime;
    parent->Changed = true;
    *added = node.get();
    return STATUS_SUCCESS;
}

NTSTATUS StoreFileSystem::AddStream(Node* node, WideView name, Stream** added)
{
    if (!store_->CanHold(node->Info.Name, name))
    {
        return STATUS_OBJECT_NAME_INVALID;
    }
    NTSTATUS status = store_->CreateStream(node->Info.Id, name);
    if (NT_SUCCESS(status))
    {
        auto stream = std::make_shared<Stream>();
        stream->Name = name;
        *added = stream.get();
        node->Streams[stream->Name] = std::move(stream);
    }
    return status;
}

namespace
{
void HandToDiscard(const Stream& stream, std::vector<std::shared_ptr<ControlBlock>>* discard)
{
    if (stream.Active)
    {
        // Counted like an open, so that the block is not torn down before.
        ++stream.Active->OpenCount;
        discard->push_back(stream.Active);
    }
}
}

NTSTATUS StoreFileSystem::RemoveNode(Node* node, std::vector<std::shared_ptr<ControlBlock>>* discard)
{
    NTSTATUS status = store_->Remove(node->Info.Id);
    if (!NT_SUCCESS(status))
    {
        return status;
    }
    for (auto& [name, stream] : node->Streams)
    {
        HandToDiscard(*stream, discard);
    }
    Node* parent = node->Parent;
    node->Deleted = true;
    node->Parent = nullptr;
    node->Changed = false;
    nodesById_.erase(node->Info.Id);
    parent->ShortNames.erase(node->Info.ShortName);
    parent->Info.LastWriteTime = parent->Info.ChangeTime = SystemTime();
    parent->Changed = true;
    parent->Children.erase(WideString(node->Info.Name)); // may free the node
    return STATUS_SUCCESS;
}

NTSTATUS StoreFileSystem::RemoveStream(Node* node, Stream* stream, std::vector<std::shared_ptr<ControlBlock>>* discard)
{
    NTSTATUS status = store_->RemoveStream(node->Info.Id, stream->Name);
    if (NT_SUCCESS(status))
    {
        HandToDiscard(*stream, discard);
        node->Streams.erase(WideString(stream->Name)); // may free the stream
    }
    return status;
}

void StoreFileSystem::SaveIfChanged(Node* node)
{
    // A failure leaves the store with older times, which nothing depends on.
    if (node->Changed && !node->Deleted && NT_SUCCESS(store_->Save(node->Info)))
    {
        node->Changed = false;
    }
}

NTSTATUS StoreFileSystem::NormalizedName(PFILE_OBJECT fileObject, ULONG options, WideString* path)
{
    std::lock_guard guard(tree_);
    if (const StoreBlock* block = StoreBlockOf(fileObject))
    {
        if (block->Owner->Deleted)
        {
            return STATUS_FILE_DELETED;
        }
        const WideString& stream = block->Record->Name;
        *path = PathOf(block->Owner.get()) + (stream.empty() ? WideString() : L":" + stream);
        return STATUS_SUCCESS;
    }
    const WideView name = View(fileObject->FileName);
    const PFILE_OBJECT related = fileObject->RelatedFileObject;
    Node* node = nullptr;
    if (options & FILE_OPEN_BY_FILE_ID)
    {
        NTSTATUS status = NodeByFileId(name, &node);
        *path = NT_SUCCESS(status) ? PathOf(node) : WideString();
        return status;
    }
    if (related == nullptr && name.empty())
    {
        path->clear();
        return STATUS_SUCCESS;
    }
    ParsedPath parsed;
    NTSTATUS status = ParsePath(name, IsRelativeName(fileObject), &parsed);
    if (!NT_SUCCESS(status))
    {
        return status;
    }
    node = StartOf(fileObject);
    *path = PathOf(node);
    for (const WideString& component : parsed.Components)
    {
        node = node != nullptr ? FindChild(node, component) : nullptr;
        *path += (path->size() > 1 ? L"\\" : L"") + (node != nullptr ? node->Info.Name : component);
    }
    *path += parsed.Stream.empty() ? WideString() : L":" + parsed.Stream;
    return STATUS_SUCCESS;
}
}
