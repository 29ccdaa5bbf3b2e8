#include "live/mount/replies.h"

#include <cerrno>
#include <cstring>
#include <sys/stat.h>

namespace live
{
namespace
{
// In bytes, as the store's file system has it; no name has more characters than bytes.
constexpr size_t LongestName = 255;
}

int PathOfName(
    MountState& state, fuse_ino_t parent, const char* name, hosted::WideString* path, hosted::WideString* wide)
{
    if (std::strlen(name) > LongestName)
    {
        return ENAMETOOLONG;
    }
    if (!hosted::NameFromLinux(name, wide))
    {
        return EILSEQ;
    }
    *path = state.Nodes.PathOf(parent, *wide);
    return path->empty() ? ENOENT : 0;
}

void ReplyEntry(fuse_req_t request, fuse_ino_t parent, hosted::WideView name, PFILE_OBJECT file)
{
    MountState& state = StateOf(request);
    fuse_entry_param entry = {};
    if (const int error = hosted::FolderStat(file, &entry.attr))
    {
        fuse_reply_err(request, error);
        return;
    }
    // With no time that it may be kept for: the next program that asks is judged by itself.
    entry.ino = state.Nodes.Enter(parent, name, entry.attr);
    if (fuse_reply_entry(request, &entry) != 0)
    {
        // The program was interrupted and the kernel will never forget what it never heard of.
        state.Forget(entry.ino, 1);
    }
}

void ReplyAttributes(fuse_req_t request, PFILE_OBJECT file)
{
    struct stat info = {};
    if (const int error = hosted::FolderStat(file, &info))
    {
        fuse_reply_err(request, error);
        return;
    }
    fuse_reply_attr(request, &info, 0);
}

void ReplyStatus(fuse_req_t request, NTSTATUS status)
{
    fuse_reply_err(request, ErrorFromStatus(status));
}

hosted::FolderCreation CreationBy(fuse_req_t request, mode_t mode)
{
    const fuse_ctx* context = fuse_req_ctx(request);
    hosted::FolderCreation creation = {};
    creation.Mode = mode;
    creation.Owner = context->uid;
    creation.Group = context->gid;
    creation.SetOwner = StateOf(request).GivesOwnership;
    return creation;
}

int DropPowers(fuse_req_t request, PFILE_OBJECT file)
{
    constexpr mode_t Powers = S_ISUID | S_ISGID;
    if (fuse_req_ctx(request)->uid == 0)
    {
        return 0;
    }
    struct stat info = {};
    const int error = hosted::FolderStat(file, &info);
    if (error != 0 || (info.st_mode & Powers) == 0)
    {
        return error;
    }
    // Without the right to execute, the group's bit means something else.
    const mode_t gone = (info.st_mode & S_IXGRP) != 0 ? Powers : S_ISUID;
    return chmod(DescriptorPath(file).c_str(), info.st_mode & 07777 & ~gone) == 0 ? 0 : errno;
}

int OpenNode(const MountState& state, fuse_ino_t node, const OpenWish& wish, OpenedFile* file)
{
    const hosted::WideString path = state.Nodes.PathOf(node);
    OpenedFile opened = path.empty() ? state.Nameless.Open(node, wish) : OpenedFile(path, wish);
    if (!opened)
    {
        const int error = ErrorFromStatus(opened.Status());
        return error == ENOENT ? ESTALE : error;
    }
    struct stat info = {};
    if (const int error = hosted::FolderStat(opened.Get(), &info))
    {
        return error;
    }
    if (!state.Nodes.Is(node, info))
    {
        return ESTALE;
    }
    *file = std::move(opened);
    return 0;
}

NodeFile::NodeFile(MountState& state, fuse_ino_t node, const OpenWish& wish, const fuse_file_info* info)
{
    if (info != nullptr)
    {
        borrowed_ = HandleOf(info)->File.Get();
        hosted::ReferenceObject(borrowed_);
        return;
    }
    if ((wish.Access & ~LookRights) == 0)
    {
        borrowed_ = state.Handles.OpenedBy(hosted::CurrentProcess(), node);
        if (borrowed_ != nullptr)
        {
            return;
        }
    }
    error_ = OpenNode(state, node, wish, &opened_);
}

NodeFile::~NodeFile()
{
    if (borrowed_ != nullptr)
    {
        hosted::DereferenceObject(borrowed_);
    }
}

std::string DescriptorPath(PFILE_OBJECT file)
{
    return "/proc/self/fd/" + std::to_string(hosted::FolderDescriptor(file));
}
}
