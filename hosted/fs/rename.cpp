// Moving a file or directory to another name.
#include "hosted/fs/disk_file_system.h"

#include "hosted/ke/system_time.h"

namespace host
{
namespace
{
constexpr WideView NtPrefix = L"\\??\\";

bool StartsWithNoCase(WideView text, WideView prefix)
{
    return text.size() >= prefix.size() && EqualNoCase(text.substr(0, prefix.size()), prefix);
}

// Cuts "\??\C:" or "\Device\HarddiskVolume1" off a path on this volume; another volume's path is not touched.
WideView PathOnVolume(const Volume& volume, WideView path)
{
    const WideString drive = WideString(NtPrefix) + volume.DosName;
    for (WideView prefix : {WideView(drive), WideView(volume.DeviceName)})
    {
        const bool whole = prefix.size() > NtPrefix.size() && StartsWithNoCase(path, prefix) &&
                           path.size() > prefix.size() && path[prefix.size()] == L'\\';
        if (whole)
        {
            return path.substr(prefix.size());
        }
    }
    return path;
}

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

// Where the new name leads: a name alone stays in the directory, a path starts at the volume, and the I/O manager may
// have opened the target's directory.
NTSTATUS DiskFileSystem::RenameTarget(
    FLT_IO_PARAMETER_BLOCK& operation, Node* node, Node** directory, WideString* name) const
{
    const auto& parameters = operation.Parameters.SetFileInformation;
    const auto* rename = static_cast<const FILE_RENAME_INFORMATION*>(parameters.InfoBuffer);
    constexpr ULONG Fixed = FIELD_OFFSET(FILE_RENAME_INFORMATION, FileName);
    if (parameters.Length < Fixed || rename->FileNameLength > parameters.Length - Fixed)
    {
        return STATUS_INFO_LENGTH_MISMATCH;
    }
    WideView text(rename->FileName, rename->FileNameLength / sizeof(WCHAR));
    const size_t lastBackslash = text.rfind(L'\\');
    if (parameters.ParentOfTarget != nullptr)
    {
        const DiskBlock* parent = DiskBlockOf(parameters.ParentOfTarget);
        if (parent == nullptr)
        {
            return STATUS_INVALID_PARAMETER;
        }
        *directory = parent->Owner.get();
        *name = lastBackslash == WideView::npos ? text : text.substr(lastBackslash + 1);
        return STATUS_SUCCESS;
    }
    if (rename->RootDirectory != nullptr)
    {
        return STATUS_INVALID_PARAMETER;
    }
    if (lastBackslash == WideView::npos)
    {
        *directory = node->Parent;
        *name = text;
        return STATUS_SUCCESS;
    }
    ParsedPath parsed;
    NTSTATUS status = ParsePath(PathOnVolume(volume_, text), false, &parsed);
    if (!NT_SUCCESS(status) || parsed.StreamGiven || parsed.Components.empty())
    {
        return STATUS_OBJECT_NAME_INVALID;
    }
    *name = parsed.Components.back();
    return Walk(root_.get(), parsed.Components, parsed.Components.size() - 1, directory);
}

NTSTATUS DiskFileSystem::Rename(FLT_IO_PARAMETER_BLOCK& operation)
{
    DiskBlock* block = DiskBlockOf(operation.TargetFileObject);
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

NTSTATUS DiskFileSystem::RenameLocked(Node* node, Node* directory, WideView name, bool replace,
    std::vector<std::shared_ptr<ControlBlock>>* discard)
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

NTSTATUS DiskFileSystem::MoveNode(Node* node, Node* directory, WideView name)
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
