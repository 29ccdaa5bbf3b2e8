// Making what is not yet in the folder.
#include "hosted/fs/folder/folder_file_system.h"

#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

namespace hosted
{
namespace
{
constexpr mode_t PermissionBits = 07777;

const FolderCreation* CreationOf(const CreateRequest& request)
{
    return request.Ea != nullptr && request.EaLength == sizeof(FolderCreation)
               ? static_cast<const FolderCreation*>(request.Ea)
               : nullptr;
}

// Makes what was created belong to whom the creator says, with exactly his permissions.
NTSTATUS SetCreation(const FolderCreation& creation, int directory, int made)
{
    struct stat above = {};
    struct stat info = {};
    if (fstat(directory, &above) != 0 || fstat(made, &info) != 0)
    {
        return StatusFromErrno(errno);
    }
    const std::string path = DescriptorPath(made);
    const gid_t group = (above.st_mode & S_ISGID) ? static_cast<gid_t>(-1) : creation.Group;
    if (creation.SetOwner && fchownat(made, "", creation.Owner, group, AT_EMPTY_PATH) != 0)
    {
        return StatusFromErrno(errno);
    }
    if (S_ISLNK(info.st_mode))
    {
        return STATUS_SUCCESS;
    }
    // Directories pass on what their own parent gave them.
    const mode_t inherited = S_ISDIR(info.st_mode) ? info.st_mode & S_ISGID : 0;
    const mode_t wanted = (creation.Mode & PermissionBits) | inherited;
    const bool special = wanted & (S_ISUID | S_ISGID);
    if (((info.st_mode & PermissionBits) != wanted || (creation.SetOwner && special)) &&
        chmod(path.c_str(), wanted) != 0)
    {
        return StatusFromErrno(errno);
    }
    return STATUS_SUCCESS;
}

// Makes the thing itself; for a file *made is open for its data. 0 or -1 with errno.
int Make(int directory, const std::string& name, bool asDirectory, const FolderCreation* creation, Descriptor* made)
{
    const mode_t mode = creation != nullptr ? creation->Mode & PermissionBits : asDirectory ? 0777 : 0666;
    const mode_t type = creation != nullptr ? creation->Mode & S_IFMT : 0;
    const char* text = name.c_str();
    const bool file = !asDirectory && (type == 0 || type == S_IFREG);
    if (creation != nullptr && creation->LinkTarget != nullptr)
    {
        if (symlinkat(creation->LinkTarget, directory, text) != 0)
        {
            return -1;
        }
    }
    else if (file)
    {
        *made = Descriptor(openat(directory, text, O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode));
        return made->Get() < 0 ? -1 : 0;
    }
    else
    {
        const int result =
            asDirectory ? mkdirat(directory, text, mode) : mknodat(directory, text, type | mode, creation->Device);
        if (result != 0)
        {
            return -1;
        }
    }
    *made = Descriptor(openat(directory, text, O_PATH | O_NOFOLLOW | O_CLOEXEC));
    return made->Get() < 0 ? -1 : 0;
}
}

NTSTATUS FolderFileSystem::CreateNew(CreateRequest& request, const FolderPlace& place)
{
    const FolderCreation* creation = CreationOf(request);
    if (options_.ReadOnly)
    {
        return STATUS_MEDIA_WRITE_PROTECTED;
    }
    const bool link = creation != nullptr && creation->LinkTarget != nullptr;
    if ((request.Ea != nullptr && creation == nullptr) || (link && !(request.Options & FILE_OPEN_REPARSE_POINT)))
    {
        return STATUS_INVALID_PARAMETER;
    }
    if (!request.WantsDirectory() && request.Path.TrailingBackslash)
    {
        return STATUS_OBJECT_NAME_INVALID;
    }
    {
        std::lock_guard guard(tree_);
        const FolderEntry* above = place.Start;
        for (size_t i = 0; above != nullptr && i + 1 < place.Components->size(); ++i)
        {
            above = above->FindChild((*place.Components)[i]);
        }
        if (above != nullptr && (above->DeletePending || above->Gone))
        {
            return STATUS_DELETE_PENDING;
        }
    }
    const Descriptor directory = OpenBelow(place.StartDescriptor, place.Directory, O_PATH | O_DIRECTORY, rule_);
    if (!directory)
    {
        return errno == ENOENT || errno == ENOTDIR ? STATUS_OBJECT_PATH_NOT_FOUND : StatusFromErrno(errno);
    }
    Descriptor made;
    if (Make(directory.Get(), place.Name, request.WantsDirectory(), creation, &made) != 0)
    {
        // A directory that is gone takes no names.
        return errno == ENOENT ? STATUS_DELETE_PENDING : StatusFromErrno(errno);
    }
    NTSTATUS status = creation != nullptr ? SetCreation(*creation, directory.Get(), made.Get()) : STATUS_SUCCESS;
    if (!NT_SUCCESS(status))
    {
        unlinkat(directory.Get(), place.Name.c_str(), request.WantsDirectory() ? AT_REMOVEDIR : 0);
        return status;
    }
    return OpenExisting(request, place, std::move(made), true);
}
}
