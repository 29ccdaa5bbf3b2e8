// New names for files and directories of the folder, in place of the old ones or besides them.
#include "hosted/fs/folder/folder_file_system.h"

#include "hosted/fs/target_name.h"
#include "hosted/io/posix_information.h"

#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

namespace hosted
{
// The name lock is held exclusive as long as there is one. What it holds of the tree is used under the tree lock.
struct FolderFileSystem::NameChange
{
    FolderFileSystem& Files;
    FolderEntry* Entry = nullptr; // kept by the request's open
    FileKey File;
    Descriptor From; // the directories
    Descriptor To;
    std::string OldName;
    std::string NewName;
    std::shared_ptr<FolderEntry> Directory; // where the new name is to stand
    WideString Name;
    bool TargetExists = false;
    struct stat Target = {};

    explicit NameChange(FolderFileSystem& files) : Files(files) {}
    ~NameChange()
    {
        std::lock_guard guard(Files.tree_);
        Directory = nullptr;
    }
    NameChange(const NameChange&) = delete;
    NameChange& operator=(const NameChange&) = delete;
};

NTSTATUS FolderFileSystem::PrepareChange(FLT_IO_PARAMETER_BLOCK& operation, NameChange* change)
{
    TargetName target;
    NTSTATUS status = ParseTargetName(volume_, operation, &target);
    if (!NT_SUCCESS(status))
    {
        return status;
    }
    std::string from;
    std::string to;
    {
        std::lock_guard guard(tree_);
        FolderEntry* entry = FolderOpenOf(operation.TargetFileObject)->Entry.get();
        if (entry->Gone || entry->DeletePending || entry->IsRoot())
        {
            return entry->IsRoot() ? STATUS_INVALID_PARAMETER : STATUS_DELETE_PENDING;
        }
        std::shared_ptr<FolderEntry> directory = target.SameDirectory ? entry->Parent : root_;
        directory = target.Parent != nullptr ? FolderOpenOf(target.Parent)->Entry : directory;
        for (const WideString& component : target.Directory)
        {
            directory = directory->Child(component);
        }
        change->NewName = NameToLinux(target.Name);
        if (change->NewName.empty() || !IsValidName(target.Name))
        {
            return STATUS_OBJECT_NAME_INVALID;
        }
        if (IsHidden(*directory, target.Name))
        {
            return STATUS_ACCESS_DENIED;
        }
        change->Entry = entry;
        change->File = entry->File;
        change->OldName = NameToLinux(entry->Name);
        from = entry->Parent->LinuxPath();
        to = directory->LinuxPath();
        change->Directory = std::move(directory);
        change->Name = std::move(target.Name);
    }
    change->From = DirectoryOf(from);
    change->To = DirectoryOf(to);
    if (!change->From || !change->To)
    {
        return errno == ENOENT || errno == ENOTDIR ? STATUS_OBJECT_PATH_NOT_FOUND : StatusFromErrno(errno);
    }
    // Whatever somebody else put in place of the file stays where it is.
    struct stat source = {};
    if (fstatat(change->From.Get(), change->OldName.c_str(), &source, AT_SYMLINK_NOFOLLOW) != 0 ||
        KeyOf(source) != change->File)
    {
        return STATUS_FILE_DELETED;
    }
    change->TargetExists =
        fstatat(change->To.Get(), change->NewName.c_str(), &change->Target, AT_SYMLINK_NOFOLLOW) == 0;
    return STATUS_SUCCESS;
}

// What is open keeps its name and is not replaced, unless the caller asks for it as POSIX programs do.
NTSTATUS FolderFileSystem::CheckClassicRename(const NameChange& change, bool replace)
{
    std::lock_guard guard(tree_);
    for (auto& [name, child] : change.Entry->Children)
    {
        if (child->InUse())
        {
            return STATUS_ACCESS_DENIED;
        }
    }
    if (!change.TargetExists || KeyOf(change.Target) == change.File)
    {
        return STATUS_SUCCESS;
    }
    if (!replace)
    {
        return STATUS_OBJECT_NAME_COLLISION;
    }
    const FolderBlock* block = FindBlock(KeyOf(change.Target));
    const bool open = block != nullptr && block->Handles != 0;
    return open || S_ISDIR(change.Target.st_mode) ? STATUS_ACCESS_DENIED : STATUS_SUCCESS;
}

NTSTATUS FolderFileSystem::RenameOnLinux(const NameChange& change, ULONG flags)
{
    const bool exchange = flags & RenameEx::Exchange;
    const bool replace = flags & RenameEx::ReplaceIfExists;
    unsigned linuxFlags = exchange ? RENAME_EXCHANGE : replace ? 0 : RENAME_NOREPLACE;
    const auto rename = [&](unsigned how)
    { return renameat2(change.From.Get(), change.OldName.c_str(), change.To.Get(), change.NewName.c_str(), how); };
    int result = rename(linuxFlags);
    // Some file systems have no such flag; nobody else changes names here meanwhile.
    if (result != 0 && errno == EINVAL && linuxFlags == RENAME_NOREPLACE && !change.TargetExists)
    {
        result = rename(0);
    }
    if (result == 0)
    {
        return STATUS_SUCCESS;
    }
    return errno == EEXIST && replace ? STATUS_DIRECTORY_NOT_EMPTY : StatusFromErrno(errno);
}

void FolderFileSystem::MoveEntries(
    NameChange& change, bool exchange, std::vector<std::shared_ptr<ControlBlock>>* discard)
{
    std::lock_guard guard(tree_);
    FolderEntry* target = change.Directory->FindChild(change.Name);
    const std::shared_ptr<FolderEntry> oldDirectory = change.Entry->Parent;
    const WideString oldName = change.Entry->Name;
    const std::shared_ptr<FolderEntry> kept = target != nullptr ? target->shared_from_this() : nullptr;
    if (kept != nullptr)
    {
        kept->Detach();
    }
    change.Entry->Move(change.Directory, change.Name);
    if (exchange && kept != nullptr)
    {
        kept->Gone = false;
        kept->Parent = oldDirectory;
        kept->Name = oldName;
        oldDirectory->Children[oldName] = kept.get();
    }
    if (!exchange && change.TargetExists)
    {
        NoteLinks(KeyOf(change.Target), discard);
    }
}

NTSTATUS FolderFileSystem::Rename(FLT_IO_PARAMETER_BLOCK& operation, ULONG flags)
{
    const bool exchange = flags & RenameEx::Exchange;
    const bool replace = flags & RenameEx::ReplaceIfExists;
    std::vector<std::shared_ptr<ControlBlock>> discard;
    NTSTATUS status;
    {
        std::unique_lock names(names_);
        NameChange change(*this);
        status = PrepareChange(operation, &change);
        if (NT_SUCCESS(status) && exchange && (replace || !change.TargetExists))
        {
            status = replace ? STATUS_INVALID_PARAMETER : STATUS_OBJECT_NAME_NOT_FOUND;
        }
        if (NT_SUCCESS(status) && !(flags & RenameEx::PosixSemantics) && !exchange)
        {
            status = CheckClassicRename(change, replace);
        }
        // Two names of one file, or the same name: the host would leave both.
        const bool same = change.TargetExists && KeyOf(change.Target) == change.File;
        if (!NT_SUCCESS(status) || (same && replace))
        {
            return status;
        }
        if (same && change.Directory.get() == change.Entry->Parent.get() && change.Name == change.Entry->Name)
        {
            return STATUS_SUCCESS;
        }
        status = RenameOnLinux(change, flags);
        if (NT_SUCCESS(status))
        {
            MoveEntries(change, exchange, &discard);
        }
    }
    Discard(discard);
    return status;
}

NTSTATUS FolderFileSystem::Link(FLT_IO_PARAMETER_BLOCK& operation)
{
    BOOLEAN replace;
    if (!TakeRecord(operation, &replace))
    {
        return STATUS_INFO_LENGTH_MISMATCH;
    }
    const FolderBlock& block = *FolderBlockOf(operation.TargetFileObject);
    if (block.Kind == StreamKind::Directory)
    {
        return STATUS_FILE_IS_A_DIRECTORY;
    }
    std::unique_lock names(names_);
    NameChange change(*this);
    NTSTATUS status = PrepareChange(operation, &change);
    if (!NT_SUCCESS(status))
    {
        return status;
    }
    if (change.TargetExists)
    {
        // The host has no way to replace a name by a link in one step.
        return replace ? STATUS_NOT_SUPPORTED : STATUS_OBJECT_NAME_COLLISION;
    }
    const int result = linkat(change.From.Get(), change.OldName.c_str(), change.To.Get(), change.NewName.c_str(), 0);
    return result == 0 ? STATUS_SUCCESS : StatusFromErrno(errno);
}
}
