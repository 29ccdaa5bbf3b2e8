// What several kinds of request need.
#pragma once

#include "hosted/live/mount/requester.h"
#include "hosted/live/mount/status_errno.h"

#include <string>

namespace live
{
inline OpenHandle* HandleOf(const fuse_file_info* info)
{
    return reinterpret_cast<OpenHandle*>(info->fh);
}

// A name in a directory: 0, or the errno value for a name that cannot be.
int PathOfName(MountState& state, fuse_ino_t parent, const char* name, host::WideString* path, host::WideString* wide);

// Answers with the file's attributes as a directory entry, and counts a look-up. `open`: the answer of a create.
void ReplyEntry(fuse_req_t request, fuse_ino_t parent, host::WideView name, PFILE_OBJECT file,
    const fuse_file_info* open = nullptr);
void ReplyAttributes(fuse_req_t request, PFILE_OBJECT file);
void ReplyStatus(fuse_req_t request, NTSTATUS status);

// What a program says about the file it makes.
host::FolderCreation CreationBy(fuse_req_t request, mode_t mode);

// A file of the volume for one request: opened anew, or, when its name is gone, any open one.
class NodeFile
{
public:
    NodeFile(MountState& state, fuse_ino_t node, const OpenWish& wish);
    ~NodeFile();
    NodeFile(const NodeFile&) = delete;
    NodeFile& operator=(const NodeFile&) = delete;

    explicit operator bool() const { return Get() != nullptr; }
    PFILE_OBJECT Get() const { return opened_ ? opened_.Get() : borrowed_; }
    NTSTATUS Status() const { return opened_.Status(); }

private:
    OpenedFile opened_;
    PFILE_OBJECT borrowed_ = nullptr; // referenced
};

// How the host system names what a descriptor stands for, for routines that take no descriptor of this kind.
std::string DescriptorPath(PFILE_OBJECT file);
}
