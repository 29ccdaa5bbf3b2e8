#include "hosted/live/mount/replies.h"

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

int PathOfName(MountState& state, fuse_ino_t parent, const char* name, host::WideString* path, host::WideString* wide)
{
    if (std::strlen(name) > LongestName)
    {
        return ENAMETOOLONG;
    }
    if (!host::NameFromHost(name, wide))
    {
        return EILSEQ;
    }
    *path = state.Nodes.PathOf(parent, *wide);
    return path->empty() ? ENOENT : 0;
}

void ReplyEntry(fuse_req_t request, fuse_ino_t parent, host::WideView name, PFILE_OBJECT file)
{
    MountState& state = StateOf(request);
    fuse_entry_param entry = {};
    if (const int error = host::FolderStat(file, &entry.attr))
    {
        fuse_reply_err(request, error);
        return;
    }
    // With no time that it may be kept for: the next program that asks is judged by itself.
    entry.ino = state.Nodes.Enter(parent, name, entry.attr);
    if (fuse_reply_entry(request, &entry) != 0)
    {
        // The program was interrupted and the kernel will never forget what it never heard of.
        state.Nodes.Forget(entry.ino, 1);
    }
}

void ReplyAttributes(fuse_req_t request, PFILE_OBJECT file)
{
    struct stat info = {};
    if (const int error = host::FolderStat(file, &info))
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

host::FolderCreation CreationBy(fuse_req_t request, mode_t mode)
{
    const fuse_ctx* context = fuse_req_ctx(request);
    host::FolderCreation creation = {};
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
    const int error = host::FolderStat(file, &info);
    if (error != 0 || (info.st_mode & Powers) == 0)
    {
        return error;
    }
    // Without the right to execute, the group's bit means something else.
    const mode_t gone = (info.st_mode & S_IXGRP) != 0 ? Powers : S_ISUID;
    return chmod(DescriptorPath(file).c_str(), info.st_mode & 07777 & ~gone) == 0 ? 0 : errno;
}

int CheckNode(const MountState& state, fuse_ino_t node, const OpenedFile& file)
{
    if (!file)
    {
        const int error = ErrorFromStatus(file.Status());
        return error == ENOENT ? ESTALE : error;
    }
    struct stat info = {};
    const int error = host::FolderStat(file.Get(), &info);
    return error != 0 || state.Nodes.Is(node, info) ? error : ESTALE;
}

NodeFile::NodeFile(MountState& state, fuse_ino_t node, const OpenWish& wish, const fuse_file_info* info)
{
    if (info != nullptr)
    {
        borrowed_ = HandleOf(info)->File.Get();
        host::ReferenceObject(borrowed_);
        return;
    }
    if ((wish.Access & ~LookRights) == 0)
    {
        borrowed_ = state.Handles.OpenedBy(host::CurrentProcess(), node);
        if (borrowed_ != nullptr)
        {
            return;
        }
    }
    opened_ = OpenedFile(state.Nodes.PathOf(node), wish);
    error_ = CheckNode(state, node, opened_);
    if (error_ != 0)
    {
        opened_.Close();
    }
    if (error_ == ESTALE)
    {
        borrowed_ = state.Handles.AnyOf(node);
    }
}

NodeFile::~NodeFile()
{
    if (borrowed_ != nullptr)
    {
        host::DereferenceObject(borrowed_);
    }
}

std::string DescriptorPath(PFILE_OBJECT file)
{
    return "/proc/self/fd/" + std::to_string(host::FolderDescriptor(file));
}
}
