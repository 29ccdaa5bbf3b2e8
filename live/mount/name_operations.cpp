// Finding, making, removing and moving names.
#include "live/mount/operations.h"
#include "live/mount/replies.h"

#include "hosted/io/posix_information.h"
#include "live/mount/sandbox_border.h"

#include <climits>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>
#include <vector>

namespace live
{
namespace
{
// A name in a directory and the path that it makes.
struct NamedPlace
{
    fuse_ino_t Directory;
    hosted::WideString Path;
    hosted::WideString Name;
};

NTSTATUS SetNewName(PFILE_OBJECT file, FILE_INFORMATION_CLASS kind, const hosted::WideString& path, ULONG flags)
{
    const size_t nameBytes = path.size() * sizeof(WCHAR);
    const size_t bytes = FIELD_OFFSET(hosted::RenameEx, FileName) + nameBytes;
    // With the structure's own alignment, and never shorter than it.
    std::vector<hosted::RenameEx> memory(bytes / sizeof(hosted::RenameEx) + 1);
    memory[0].Flags = flags;
    memory[0].FileNameLength = static_cast<ULONG>(nameBytes);
    std::memcpy(static_cast<void*>(memory[0].FileName), path.data(), nameBytes);
    return hosted::SetInformation(file, kind, memory.data(), static_cast<ULONG>(bytes));
}

// `node`: whose last known name was that of the file, or NodeTable::Nobody.
void KeepNameless(MountState& state, NodeId node, OpenedFile file)
{
    if (node != NodeTable::Nobody)
    {
        state.Nameless.Keep(node, std::move(file));
    }
}

void Make(
    fuse_req_t request, fuse_ino_t parent, const char* name, const hosted::FolderCreation& creation, ULONG options)
{
    WithName(request, parent, name,
        [&](const hosted::WideString& path, const hosted::WideString& wide)
        {
            const OpenedFile file(path, {.Access = FILE_READ_ATTRIBUTES | FILE_WRITE_ATTRIBUTES,
                                            .Disposition = FILE_CREATE,
                                            .Options = options,
                                            .Creation = &creation});
            if (file)
            {
                ReplyEntry(request, parent, wide, file.Get());
            }
            return ErrorFromStatus(file.Status());
        });
}

void Remove(fuse_req_t request, fuse_ino_t parent, const char* name, ULONG options)
{
    WithName<std::unique_lock>(request, parent, name,
        [&](const hosted::WideString& path, const hosted::WideString& wide)
        {
            OpenedFile file(
                path, {.Access = DELETE | FILE_READ_ATTRIBUTES, .Options = options | FILE_OPEN_REPARSE_POINT});
            NTSTATUS status = file.Status();
            if (file)
            {
                hosted::DispositionEx disposition = {
                    hosted::DispositionEx::Delete | hosted::DispositionEx::PosixSemantics};
                status =
                    hosted::SetInformation(file.Get(), FileDispositionInformationEx, &disposition, sizeof(disposition));
            }
            if (NT_SUCCESS(status))
            {
                MountState& state = StateOf(request);
                KeepNameless(state, state.Nodes.Removed(parent, wide), std::move(file));
                fuse_reply_err(request, 0);
            }
            return ErrorFromStatus(status);
        });
}

// The target of a rename is opened as well, as the system does it before it asks for the move: so that it is judged,
// too.
int JudgeTarget(const hosted::WideString& path, OpenedFile* target)
{
    *target = OpenedFile(path, LookAt);
    const int error = ErrorFromStatus(target->Status());
    return error == ENOENT ? 0 : error;
}

// Moves what was opened as `from`, and with it what the kernel knows by the names. `target`: what was found under the
// new name, if anything was.
NTSTATUS Move(MountState& state, const OpenedFile& file, const NamedPlace& from, const NamedPlace& to,
    OpenedFile target, unsigned flags)
{
    if ((flags & RENAME_EXCHANGE) != 0)
    {
        const NTSTATUS status = SetNewName(file.Get(), FileRenameInformationEx, to.Path, hosted::RenameEx::Exchange);
        if (NT_SUCCESS(status))
        {
            state.Nodes.Exchanged(from.Directory, from.Name, to.Directory, to.Name);
        }
        return status;
    }
    const ULONG replace = (flags & RENAME_NOREPLACE) != 0 ? 0 : hosted::RenameEx::ReplaceIfExists;
    const NTSTATUS status =
        SetNewName(file.Get(), FileRenameInformationEx, to.Path, replace | hosted::RenameEx::PosixSemantics);
    if (NT_SUCCESS(status))
    {
        KeepNameless(state, state.Nodes.Moved(from.Directory, from.Name, to.Directory, to.Name), std::move(target));
    }
    return status;
}

// 0 with the answer given, or the errno value.
int RenameFile(fuse_req_t request, const NamedPlace& from, const NamedPlace& to, unsigned flags)
{
    MountState& state = StateOf(request);
    if (CrossesSandboxBorder(state, from.Path, to.Path))
    {
        // The bytes on the disk would be taken for what they are not on the other side. Told so, programs copy.
        return EXDEV;
    }
    OpenedFile target;
    if (const int error = JudgeTarget(to.Path, &target))
    {
        return error;
    }
    const OpenedFile file(from.Path, {.Access = DELETE | FILE_READ_ATTRIBUTES, .Options = FILE_OPEN_REPARSE_POINT});
    const NTSTATUS status = file ? Move(state, file, from, to, std::move(target), flags) : file.Status();
    if (NT_SUCCESS(status))
    {
        fuse_reply_err(request, 0);
    }
    return ErrorFromStatus(status);
}
}

void Lookup(fuse_req_t request, fuse_ino_t parent, const char* name)
{
    WithName(request, parent, name,
        [&](const hosted::WideString& path, const hosted::WideString& wide)
        {
            const OpenedFile file(path, LookAt);
            if (file)
            {
                ReplyEntry(request, parent, wide, file.Get());
            }
            return ErrorFromStatus(file.Status());
        });
}

void Forget(fuse_req_t request, fuse_ino_t node, uint64_t lookups)
{
    StateOf(request).Forget(node, lookups);
    fuse_reply_none(request);
}

void ForgetMany(fuse_req_t request, size_t count, fuse_forget_data* forgets)
{
    for (size_t i = 0; i < count; ++i)
    {
        StateOf(request).Forget(forgets[i].ino, forgets[i].nlookup);
    }
    fuse_reply_none(request);
}

void MakeNode(fuse_req_t request, fuse_ino_t parent, const char* name, mode_t mode, dev_t device)
{
    hosted::FolderCreation creation = CreationBy(request, mode);
    creation.Device = device;
    Make(request, parent, name, creation, FILE_NON_DIRECTORY_FILE | FILE_OPEN_REPARSE_POINT);
}

void MakeDirectory(fuse_req_t request, fuse_ino_t parent, const char* name, mode_t mode)
{
    Make(request, parent, name, CreationBy(request, mode), FILE_DIRECTORY_FILE);
}

void MakeSymbolicLink(fuse_req_t request, const char* target, fuse_ino_t parent, const char* name)
{
    hosted::FolderCreation creation = CreationBy(request, 0777);
    creation.LinkTarget = target;
    Make(request, parent, name, creation, FILE_OPEN_REPARSE_POINT | FILE_NON_DIRECTORY_FILE);
}

void ReadSymbolicLink(fuse_req_t request, fuse_ino_t node)
{
    WithFile(request, node, LookAt, nullptr,
        [&](PFILE_OBJECT file)
        {
            char target[PATH_MAX + 1] = {};
            if (readlinkat(hosted::FolderDescriptor(file), "", target, PATH_MAX) < 0)
            {
                return errno;
            }
            fuse_reply_readlink(request, target);
            return 0;
        });
}

void RemoveFile(fuse_req_t request, fuse_ino_t parent, const char* name)
{
    Remove(request, parent, name, FILE_NON_DIRECTORY_FILE);
}

void RemoveDirectory(fuse_req_t request, fuse_ino_t parent, const char* name)
{
    Remove(request, parent, name, FILE_DIRECTORY_FILE);
}

void Link(fuse_req_t request, fuse_ino_t node, fuse_ino_t newParent, const char* newName)
{
    constexpr OpenWish linking = {
        .Access = FILE_WRITE_ATTRIBUTES | FILE_READ_ATTRIBUTES, .Options = FILE_OPEN_REPARSE_POINT};
    WithName(request, newParent, newName,
        [&](const hosted::WideString& path, const hosted::WideString& wide)
        {
            MountState& state = StateOf(request);
            if (CrossesSandboxBorder(state, state.Nodes.PathOf(node), path))
            {
                return EXDEV;
            }
            OpenedFile target;
            if (const int error = JudgeTarget(path, &target))
            {
                return error;
            }
            const NodeFile file(state, node, linking);
            if (!file)
            {
                return file.Error();
            }
            const NTSTATUS status = SetNewName(file.Get(), FileLinkInformation, path, 0);
            if (NT_SUCCESS(status))
            {
                ReplyEntry(request, newParent, wide, file.Get());
            }
            return ErrorFromStatus(status);
        });
}

void Rename(
    fuse_req_t request, fuse_ino_t parent, const char* name, fuse_ino_t newParent, const char* newName, unsigned flags)
{
    WithName<std::unique_lock>(request, parent, name,
        [&](const hosted::WideString& path, const hosted::WideString& wide)
        {
            NamedPlace to = {newParent, {}, {}};
            const int error = (flags & ~(RENAME_EXCHANGE | RENAME_NOREPLACE)) != 0
                                  ? EINVAL
                                  : PathOfName(StateOf(request), newParent, newName, &to.Path, &to.Name);
            return error != 0 ? error : RenameFile(request, {parent, path, wide}, to, flags);
        });
}
}
