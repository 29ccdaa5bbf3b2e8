// Opening what is in the folder.
#include "hosted/fs/folder/folder_file_system.h"

#include <cerrno>
#include <fcntl.h>

namespace hosted
{
namespace
{
// Names that others make and remove at the same moment are tried for so often.
constexpr int MostAttempts = 16;

// Rights by which something would change, and by which it would not only look.
constexpr ACCESS_MASK ChangingRights = DataWriteRights | DELETE;

StreamKind KindOf(mode_t mode)
{
    return S_ISREG(mode) ? StreamKind::Data : S_ISDIR(mode) ? StreamKind::Directory : StreamKind::Other;
}
}

FileKey KeyOf(const struct stat& info)
{
    return {info.st_dev, info.st_ino};
}

bool FolderFileSystem::IsHidden(const FolderEntry& directory, WideView name) const
{
    return directory.IsRoot() && !options_.ReadOnly && name == WideView(Widen(EndJournal::DirectoryName));
}

FolderEntry* FolderFileSystem::StartOf(PFILE_OBJECT file) const
{
    const PFILE_OBJECT related = file->RelatedFileObject;
    const bool fromRoot = related == nullptr || related->FsContext == nullptr || (related->Flags & FO_VOLUME_OPEN);
    return fromRoot ? root_.get() : FolderOpenOf(related)->Entry.get();
}

NTSTATUS FolderFileSystem::OpenTarget(CreateRequest& request)
{
    if (request.ById())
    {
        return STATUS_NOT_SUPPORTED;
    }
    if (request.VolumeOpen)
    {
        return OpenVolume(request);
    }
    const bool changes = (request.Access & ChangingRights) || Overwrites(request.Disposition) ||
                         request.Disposition == FILE_CREATE || (request.Options & FILE_DELETE_ON_CLOSE);
    if (options_.ReadOnly && changes)
    {
        return STATUS_MEDIA_WRITE_PROTECTED;
    }
    if (request.Path.StreamGiven)
    {
        return STATUS_OBJECT_NAME_INVALID;
    }
    std::shared_lock names(names_);
    FolderPlace place;
    NTSTATUS status = FindPlace(request, &place);
    for (int attempt = 0; NT_SUCCESS(status); ++attempt)
    {
        Descriptor found;
        status = LookUp(place, &found);
        if (NT_SUCCESS(status))
        {
            return OpenExisting(request, place, std::move(found), false);
        }
        if (status != STATUS_OBJECT_NAME_NOT_FOUND || NeedsExisting(request.Disposition))
        {
            return status;
        }
        status = CreateNew(request, place);
        const bool appeared = status == STATUS_OBJECT_NAME_COLLISION && request.Disposition != FILE_CREATE;
        if (!appeared || attempt == MostAttempts)
        {
            return status;
        }
        status = STATUS_SUCCESS;
    }
    return status;
}

NTSTATUS FolderFileSystem::OpenVolume(CreateRequest& request)
{
    if (request.WantsDirectory())
    {
        return STATUS_NOT_A_DIRECTORY;
    }
    if (request.Disposition != FILE_OPEN && request.Disposition != FILE_OPEN_IF)
    {
        return STATUS_ACCESS_DENIED;
    }
    std::lock_guard guard(tree_);
    std::shared_ptr<FolderBlock> block = volumeBlock_.lock();
    if (block == nullptr || block->TornDown)
    {
        block = std::make_shared<FolderBlock>(*this, StreamKind::Volume, 0, FileKey{}, Descriptor());
        Activate(block);
        volumeBlock_ = block;
    }
    request.Information = FILE_OPENED;
    NTSTATUS status = AttachOpen(request, std::move(block), nullptr);
    request.File->Flags |= NT_SUCCESS(status) ? FO_VOLUME_OPEN : 0;
    return status;
}

NTSTATUS FolderFileSystem::FindPlace(const CreateRequest& request, FolderPlace* place)
{
    const std::vector<WideString>& components = request.Path.Components;
    std::lock_guard guard(tree_);
    place->Start = StartOf(request.File);
    place->Components = &components;
    // Links are followed from the top, where they may lead back up.
    const bool links = rule_ == LookupRule::FollowLinks && !components.empty();
    const bool fromTop = place->Start->IsRoot() || links;
    place->StartDescriptor = fromTop ? folder_.Get() : FolderBlockOf(request.File->RelatedFileObject)->Descriptor.Get();
    if (place->Start->Gone && !components.empty())
    {
        return STATUS_DELETE_PENDING;
    }
    place->Directory = fromTop ? place->Start->LinuxPath() : std::string();
    for (size_t i = 0; i < components.size(); ++i)
    {
        std::string name = NameToLinux(components[i]);
        if (name.empty() || (i == 0 && IsHidden(*place->Start, components[i])))
        {
            const bool last = i + 1 == components.size();
            const NTSTATUS hidden =
                NeedsExisting(request.Disposition) ? STATUS_OBJECT_NAME_NOT_FOUND : STATUS_ACCESS_DENIED;
            return name.empty() ? STATUS_OBJECT_NAME_INVALID : last ? hidden : STATUS_OBJECT_PATH_NOT_FOUND;
        }
        if (i + 1 == components.size())
        {
            place->Name = std::move(name);
            break;
        }
        place->Directory += (place->Directory.empty() ? "" : "/") + name;
    }
    if (components.empty())
    {
        std::swap(place->Directory, place->Name);
    }
    return IsLeftOut(*place) ? STATUS_OBJECT_PATH_NOT_FOUND : STATUS_SUCCESS;
}

bool FolderFileSystem::IsLeftOut(const FolderPlace& place) const
{
    if (options_.Without.empty() || place.StartDescriptor != folder_.Get())
    {
        return false;
    }
    const std::string top = options_.Folder.ends_with('/') ? options_.Folder : options_.Folder + "/";
    const std::string path = top + place.Directory + (place.Directory.empty() ? "" : "/") + place.Name;
    return path.starts_with(options_.Without) &&
           (path.size() == options_.Without.size() || path[options_.Without.size()] == '/');
}

NTSTATUS FolderFileSystem::LookUp(const FolderPlace& place, Descriptor* found)
{
    if (place.Components->empty() && place.StartDescriptor != folder_.Get())
    {
        *found = Descriptor(fcntl(place.StartDescriptor, F_DUPFD_CLOEXEC, 0));
        return *found ? STATUS_SUCCESS : StatusFromErrno(errno);
    }
    *found = OpenBelow(place.StartDescriptor, place.Path(), O_PATH, rule_);
    if (*found)
    {
        return STATUS_SUCCESS;
    }
    if (errno == ENOTDIR)
    {
        return STATUS_OBJECT_PATH_NOT_FOUND;
    }
    if (errno != ENOENT)
    {
        return StatusFromErrno(errno);
    }
    // Is it the last component that is missing?
    const bool directory =
        static_cast<bool>(OpenBelow(place.StartDescriptor, place.Directory, O_PATH | O_DIRECTORY, rule_));
    return directory ? STATUS_OBJECT_NAME_NOT_FOUND : STATUS_OBJECT_PATH_NOT_FOUND;
}

NTSTATUS FolderFileSystem::CheckExisting(const CreateRequest& request, const struct stat& info, bool created) const
{
    const bool directory = S_ISDIR(info.st_mode);
    const bool overwrites = Overwrites(request.Disposition) && !created;
    if (!created && request.Disposition == FILE_CREATE)
    {
        return STATUS_OBJECT_NAME_COLLISION;
    }
    if (S_ISLNK(info.st_mode) && !(request.Options & FILE_OPEN_REPARSE_POINT))
    {
        return STATUS_STOPPED_ON_SYMLINK;
    }
    if (directory && (request.WantsFile() || overwrites))
    {
        return STATUS_FILE_IS_A_DIRECTORY;
    }
    if (!directory && request.WantsDirectory())
    {
        return STATUS_NOT_A_DIRECTORY;
    }
    if (!directory && request.Path.TrailingBackslash)
    {
        return STATUS_OBJECT_NAME_INVALID;
    }
    return !directory && !S_ISREG(info.st_mode) && overwrites ? STATUS_ACCESS_DENIED : STATUS_SUCCESS;
}

NTSTATUS FolderFileSystem::OpenExisting(
    CreateRequest& request, const FolderPlace& place, Descriptor found, bool created)
{
    std::shared_ptr<FolderBlock> block;
    NTSTATUS status;
    {
        std::lock_guard guard(tree_);
        // The size counts from now on, so it is asked for under the lock.
        struct stat info = {};
        if (fstat(found.Get(), &info) != 0)
        {
            return StatusFromErrno(errno);
        }
        status = CheckExisting(request, info, created);
        if (!NT_SUCCESS(status))
        {
            return status;
        }
        std::shared_ptr<FolderEntry> entry = place.Start->shared_from_this();
        for (const WideString& component : *place.Components)
        {
            entry = entry->Child(component);
        }
        if (entry->IsRoot() && (request.Options & FILE_DELETE_ON_CLOSE))
        {
            return STATUS_CANNOT_DELETE;
        }
        if (entry->Handles != 0 && entry->File != KeyOf(info) && !entry->IsRoot())
        {
            // Somebody else gave the name to another file.
            entry->Detach();
            entry = entry->Parent->Child(entry->Name);
        }
        entry->File = KeyOf(info);
        if (entry->DeletePending)
        {
            return STATUS_DELETE_PENDING;
        }
        request.Truncate = Overwrites(request.Disposition) && !created;
        request.Information = created                                 ? FILE_CREATED
                              : request.Disposition == FILE_SUPERSEDE ? FILE_SUPERSEDED
                              : request.Truncate                      ? FILE_OVERWRITTEN
                                                                      : FILE_OPENED;
        status = BlockFor(info, std::move(found), created && S_ISREG(info.st_mode), &block);
        if (NT_SUCCESS(status))
        {
            status = AttachOpen(request, block, std::move(entry));
        }
    }
    if (!NT_SUCCESS(status) && block != nullptr)
    {
        TryTearDown(block);
    }
    return status;
}

// `forData`: the descriptor is one of the file's data.
NTSTATUS FolderFileSystem::BlockFor(
    const struct stat& info, Descriptor found, bool forData, std::shared_ptr<FolderBlock>* block)
{
    if (FolderBlock* known = FindBlock(KeyOf(info)))
    {
        *block = std::static_pointer_cast<FolderBlock>(known->shared_from_this());
        return STATUS_SUCCESS;
    }
    const StreamKind kind = KindOf(info.st_mode);
    LONGLONG size = kind == StreamKind::Data ? info.st_size : 0;
    if (kind == StreamKind::Data && !options_.ReadOnly)
    {
        const int error = journal_.Recover(found.Get());
        struct stat recovered = {};
        if (error != 0 || fstat(found.Get(), &recovered) != 0)
        {
            return StatusFromErrno(error != 0 ? error : errno);
        }
        size = recovered.st_size;
    }
    const int descriptor = found.Get();
    auto made = std::make_shared<FolderBlock>(*this, kind, size, KeyOf(info), std::move(found));
    if (kind == StreamKind::Data)
    {
        auto stored = std::make_shared<FolderStream>(descriptor, size, options_.ReadOnly ? nullptr : &journal_);
        if (forData)
        {
            stored->Adopt(descriptor);
        }
        made->Data = std::move(stored);
    }
    Activate(made);
    blocks_[made->Key] = made.get();
    *block = std::move(made);
    return STATUS_SUCCESS;
}

NTSTATUS FolderFileSystem::AttachOpen(
    CreateRequest& request, std::shared_ptr<FolderBlock> block, std::shared_ptr<FolderEntry> entry)
{
    NTSTATUS status = CheckSharing(*block, request);
    const ACCESS_MASK data = request.Access & (DataReadRights | DataWriteRights);
    const bool asItself = request.Options & FILE_OPEN_REPARSE_POINT;
    if (block->Kind == StreamKind::Other && data != 0 && NT_SUCCESS(status) && !asItself)
    {
        status = STATUS_ACCESS_DENIED;
    }
    // Whoever may not have the data learns it here and not when he touches it.
    if (block->Kind == StreamKind::Data && NT_SUCCESS(status) && (data != 0 || request.Truncate))
    {
        status = block->Stored().Ready((data & DataWriteRights) || request.Truncate);
    }
    if (!NT_SUCCESS(status))
    {
        return status;
    }
    auto open = std::make_unique<FolderOpen>();
    ++block->Handles;
    if (entry != nullptr)
    {
        ++entry->Handles;
    }
    open->Entry = std::move(entry);
    Attach(request, std::move(block), std::move(open));
    return STATUS_SUCCESS;
}
}
