// Moving a file or directory to another name.
#include "hosted/fs/store/store_file_system.h"

#include "hosted/fs/target_name.h"
#include "hosted/ke/system_time.h"

namespace hosted
{
namespace
{
bool IsInUse(const Node& node)
{
    if (node.Handles != 0)
    {
        return true;
    }
    for (auto& [name, child] : node.Children)
    {
        if (IsInUse(*child))
        {
            return true;
        }
    }
    return false;
}
}

NTSTATUS StoreFileSystem::RenameTarget(
    FLT_IO_PARAMETER_BLOCK& operation, Node* node, Node** directory, WideString* name) const
{
    TargetName target;
    NTSTATUS status = ParseTargetName(volume_, operation, &target);
    if (!NT_SUCCESS(status))
    {
        return status;
    }
    *name = target.Name;
    if (target.Parent != nullptr)
    {
        *directory = StoreBlockOf(target.Parent)->Owner.get();
        return STATUS_SUCCESS;
    }
    if (target.SameDirectory)
    {
        *directory = node->Parent;
        return STATUS_SUCCESS;
    }
    return Walk(root_.get(), target.Directory, target.Directory.size(), directory);
}

NTSTATUS StoreFileSystem::Rename(FLT_IO_PARAMETER_BLOCK& operation)
{
    StoreBlock* block = StoreBlockOf(operation.TargetFileObject);
    std::vector<std::shared_ptr<ControlBlock>> discard;
    NTSTATUS status;
    {
        std::lock_guard guard(tree_);
        Node* node = block->Owner.get();
        if (node->Deleted || node->DeletePending || node == root_.get() || !block->Record->Name.empty())
        {
            return node->Deleted || node->DeletePending ? STATUS_DELETE_PENDING : STATUS_INVALID_PARAMETER;
        }
        Node* directory = nullptr;
        WideString name;
        status = RenameTarget(operation, node, &directory, &name);
        if (NT_SUCCESS(status))
        {
            const auto* rename =
                static_cast<const FILE_RENAME_INFORMATION*>(operation.Parameters.SetFileInformation.InfoBuffer);
            status = RenameLocked(node, directory, name, rename->ReplaceIfExists != 0, &discard);
        }
    }
    Discard(discard);
    return status;
}

NTSTATUS StoreFileSystem::RenameLocked(
    Node* node, Node* directory, WideView name, bool replace, std::vector<std::shared_ptr<ControlBlock>>* discard)
{
    if (!IsValidName(name) || !store_->CanHold(name, {}))
    {
        return STATUS_OBJECT_NAME_INVALID;
    }
    if (!directory->Info.Directory)
    {
        return STATUS_OBJECT_PATH_NOT_FOUND;
    }
    for (const Node* each = directory; each != nullptr; each = each->Parent)
    {
        if (each == node)
        {
            return STATUS_INVALID_PARAMETER;
        }
    }
    for (auto& [childName, child] : node->Children)
    {
        if (IsInUse(*child))
        {
            return STATUS_ACCESS_DENIED;
        }
    }
    for (auto& [streamName, stream] : node->Streams)
    {
        if (!store_->CanHold(name, streamName))
        {
            return STATUS_OBJECT_NAME_INVALID;
        }
    }
    Node* target = FindChild(directory, name);
    if (target != nullptr && target != node)
    {
        if (!replace)
        {
            return STATUS_OBJECT_NAME_COLLISION;
        }
        if (target->Info.Directory || IsInUse(*target) || (target->Info.Attributes & FILE_ATTRIBUTE_READONLY))
        {
            return STATUS_ACCESS_DENIED;
        }
        NTSTATUS status = RemoveNode(target, discard);
        if (!NT_SUCCESS(status))
        {
            return status;
        }
    }
    else if (directory->DeletePending || directory->Deleted)
    {
        return STATUS_DELETE_PENDING;
    }
    return MoveNode(node, directory, name);
}

NTSTATUS StoreFileSystem::MoveNode(Node* node, Node* directory, WideView name)
{
    Node* from = node->Parent;
    const StoredNode before = node->Info;
    const std::shared_ptr<Node> self = node->shared_from_this();
    from->Children.erase(before.Name);
    from->ShortNames.erase(before.ShortName);
    node->Parent = directory;
    node->Info.ParentId = directory->Info.Id;
    node->Info.Name = name;
    // A change of case alone leaves the short name; any other name gets one of its own.
    if (from != directory || !EqualNoCase(before.Name, name))
    {
        node->Info.ShortName.clear();
    }
    NameShort(node);
    node->Info.ChangeTime = SystemTime();
    NTSTATUS status = store_->Rename(node->Info);
    if (!NT_SUCCESS(status))
    {
        directory->ShortNames.erase(node->Info.ShortName);
        node->Info = before;
        node->Parent = from;
        NameShort(node);
    }
    node->Parent->Children[node->Info.Name] = self;
    for (Node* changed : {from, directory})
    {
        changed->Info.LastWriteTime = changed->Info.ChangeTime = SystemTime();
        changed->Changed = true;
    }
    return status;
}
}
