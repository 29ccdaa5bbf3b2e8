// Finding, making, removing and moving names.
#include "hosted/live/mount/operations.h"
#include "hosted/live/mount/replies.h"

#include "hosted/io/posix_information.h"
#include "hosted/live/mount/sandbox_border.h"

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
constexpr OpenWish LookAt = {.Access = FILE_READ_ATTRIBUTES, .Options = FILE_OPEN_REPARSE_POINT};

// A rename or link request with its name behind it.
std::vector<ULONGLONG> NewNameRecord(const host::WideString& path, ULONG flags)
{
    constexpr size_t Fixed = FIELD_OFFSET(host::RenameEx, FileName);
    const size_t bytes = Fixed + path.size() * sizeof(WCHAR);
    std::vector<ULONGLONG> memory((bytes + sizeof(ULONGLONG)) / sizeof(ULONGLONG) + 1);
    auto* record = reinterpret_cast<host::RenameEx*>(memory.data());
    record->Flags = flags;
    record->FileNameLength = static_cast<ULONG>(path.size() * sizeof(WCHAR));
    std::memcpy(record->FileName, path.data(), record->FileNameLength);
    return memory;
}

NTSTATUS SetNewName(PFILE_OBJECT file, FILE_INFORMATION_CLASS kind, const host::WideString& path, ULONG flags)
{
    std::vector<ULONGLONG> record = NewNameRecord(path, flags);
    const ULONG length =
        static_cast<ULONG>(FIELD_OFFSET(host::RenameEx, FileName) + path.size() * sizeof(WCHAR));
    return host::SetInformation(file, kind, record.data(), length);
}

// The last name goes: the number of the file may come back as another file's as soon as `file` is closed.
void ForgetIfLast(MountState& state, PFILE_OBJECT file)
{
    struct stat info = {};
    if (host::FolderStat(file, &info) == 0 && (info.st_nlink == 0 || S_ISDIR(info.st_mode)))
    {
        state.Nodes.Gone(info);
    }
}

void Make(fuse_req_t request, fuse_ino_t parent, const char* name, const host::FolderCreation& creation, ULONG options)
{
    MountState& state = StateOf(request);
    const Requester requester(request);
    host::WideString path;
    host::WideString wide;
    int error = requester ? PathOfName(state, parent, name, &path, &wide) : EACCES;
    if (error == 0)
    {
        const OpenedFile file(path, {.Access = FILE_READ_ATTRIBUTES | FILE_WRITE_ATTRIBUTES,
                                     .Disposition = FILE_CREATE,
                                     .Options = options,
                                     .Creation = &creation});
        if (file)
        {
            ReplyEntry(request, parent, wide, file.Get());
            return;
        }
        error = ErrorFromStatus(file.Status());
    }
    fuse_reply_err(request, error);
}

void Remove(fuse_req_t request, fuse_ino_t parent, const char* name, ULONG options)
{
    MountState& state = StateOf(request);
    const Requester requester(request);
    host::WideString path;
    host::WideString wide;
    int error = requester ? PathOfName(state, parent, name, &path, &wide) : EACCES;
    if (error == 0)
    {
        const OpenedFile file(
            path, {.Access = DELETE | FILE_READ_ATTRIBUTES, .Options = options | FILE_OPEN_REPARSE_POINT});
        NTSTATUS status = file.Status();
        if (file)
        {
            host::DispositionEx disposition = {host::DispositionEx::Delete | host::DispositionEx::PosixSemantics};
            status =
                host::SetInformation(file.Get(), FileDispositionInformationEx, &disposition, sizeof(disposition));
        }
        if (NT_SUCCESS(status))
        {
            state.Nodes.Removed(parent, wide);
            ForgetIfLast(state, file.Get());
        }
        error = ErrorFromStatus(status);
    }
    fuse_reply_err(request, error);
}

// The target of a rename is opened as well, as the system does it before it asks for the move: so that it is judged,
// too.
int JudgeTarget(const host::WideString& path, OpenedFile* target)
{
    *target = OpenedFile(path, LookAt);
    const int error = ErrorFromStatus(target->Status());
    return error == ENOENT ? 0 : error;
}
}

void Lookup(fuse_req_t request, fuse_ino_t parent, const char* name)
{
    const Requester requester(request);
    host::WideString path;
    host::WideString wide;
    int error = requester ? PathOfName(StateOf(request), parent, name, &path, &wide) : EACCES;
    if (error == 0)
    {
        const OpenedFile file(path, LookAt);
        if (file)
        {
            ReplyEntry(request, parent, wide, file.Get());
            return;
        }
        error = ErrorFromStatus(file.Status());
    }
    fuse_reply_err(request, error);
}

void Forget(fuse_req_t request, fuse_ino_t node, uint64_t lookups)
{
    StateOf(request).Nodes.Forget(node, lookups);
    fuse_reply_none(request);
}

void ForgetMany(fuse_req_t request, size_t count, fuse_forget_data* forgets)
{
    for (size_t i = 0; i < count; ++i)
    {
        StateOf(request).Nodes.Forget(forgets[i].ino, forgets[i].nlookup);
    }
    fuse_reply_none(request);
}

void MakeNode(fuse_req_t request, fuse_ino_t parent, const char* name, mode_t mode, dev_t device)
{
    host::FolderCreation creation = CreationBy(request, mode);
    creation.Device = device;
    Make(request, parent, name, creation, FILE_NON_DIRECTORY_FILE | FILE_OPEN_REPARSE_POINT);
}

void MakeDirectory(fuse_req_t request, fuse_ino_t parent, const char* name, mode_t mode)
{
    Make(request, parent, name, CreationBy(request, mode), FILE_DIRECTORY_FILE);
}

void MakeSymbolicLink(fuse_req_t request, const char* target, fuse_ino_t parent, const char* name)
{
    host::FolderCreation creation = CreationBy(request, 0777);
    creation.LinkTarget = target;
    Make(request, parent, name, creation, FILE_OPEN_REPARSE_POINT | FILE_NON_DIRECTORY_FILE);
}

void ReadSymbolicLink(fuse_req_t request, fuse_ino_t node)
{
    const Requester requester(request);
    if (!requester)
    {
        fuse_reply_err(request, EACCES);
        return;
    }
    const NodeFile file(StateOf(request), node, LookAt);
    if (!file)
    {
        ReplyStatus(request, file.Status());
        return;
    }
    char target[PATH_MAX + 1];
    const ssize_t length = readlinkat(host::FolderDescriptor(file.Get()), "", target, PATH_MAX);
    if (length < 0)
    {
        fuse_reply_err(request, errno);
        return;
    }
    target[length] = '\0';
    fuse_reply_readlink(request, target);
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
    MountState& state = StateOf(request);
    const Requester requester(request);
    host::WideString path;
    host::WideString wide;
    int error = requester ? PathOfName(state, newParent, newName, &path, &wide) : EACCES;
    const host::WideString source = state.Nodes.PathOf(node);
    if (error == 0 && CrossesSandboxBorder(state, source, path))
    {
        error = EXDEV;
    }
    OpenedFile target;
    error = error == 0 ? JudgeTarget(path, &target) : error;
    if (error == 0)
    {
        const NodeFile file(
            state, node, {.Access = FILE_WRITE_ATTRIBUTES | FILE_READ_ATTRIBUTES, .Options = FILE_OPEN_REPARSE_POINT});
        const NTSTATUS status =
            file ? SetNewName(file.Get(), FileLinkInformation, path, 0) : file.Status();
        if (NT_SUCCESS(status))
        {
            ReplyEntry(request, newParent, wide, file.Get());
            return;
        }
        error = ErrorFromStatus(status);
    }
    fuse_reply_err(request, error);
}

void Rename(fuse_req_t request, fuse_ino_t parent, const char* name, fuse_ino_t newParent, const char* newName,
    unsigned flags)
{
    MountState& state = StateOf(request);
    const Requester requester(request);
    const bool exchange = (flags & RENAME_EXCHANGE) != 0;
    host::WideString from;
    host::WideString fromName;
    host::WideString to;
    host::WideString toName;
    int error = requester ? PathOfName(state, parent, name, &from, &fromName) : EACCES;
    error = error == 0 ? PathOfName(state, newParent, newName, &to, &toName) : error;
    if (error == 0 && (flags & ~(RENAME_EXCHANGE | RENAME_NOREPLACE)) != 0)
    {
        error = EINVAL;
    }
    if (error == 0 && CrossesSandboxBorder(state, from, to))
    {
        // The bytes on the disk would be taken for what they are not on the other side. Told so, programs copy.
        error = EXDEV;
    }
    OpenedFile target;
    error = error == 0 ? JudgeTarget(to, &target) : error;
    if (error == 0)
    {
        const OpenedFile file(
            from, {.Access = DELETE | FILE_READ_ATTRIBUTES, .Options = FILE_OPEN_REPARSE_POINT});
        NTSTATUS status = file.Status();
        if (file)
        {
            const ULONG replace = flags & RENAME_NOREPLACE ? 0 : host::RenameEx::ReplaceIfExists;
            status = SetNewName(file.Get(), FileRenameInformationEx, to,
                exchange ? host::RenameEx::Exchange
                         : replace | host::RenameEx::PosixSemantics);
        }
        if (NT_SUCCESS(status) && exchange)
        {
            state.Nodes.Exchanged(parent, fromName, newParent, toName);
        }
        else if (NT_SUCCESS(status))
        {
            state.Nodes.Moved(parent, fromName, newParent, toName);
            if (target)
            {
                ForgetIfLast(state, target.Get());
            }
        }
        error = ErrorFromStatus(status);
    }
    fuse_reply_err(request, error);
}
}
