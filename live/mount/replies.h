// What several kinds of request need.
#pragma once

#include "live/mount/requester.h"
#include "live/mount/status_errno.h"

#include <cerrno>
#include <memory>
#include <mutex>
#include <optional>
#include <shared_mutex>
#include <string>

namespace live
{
// How a file is only looked at, whatever it is.
constexpr OpenWish LookAt = {.Access = FILE_READ_ATTRIBUTES, .Options = FILE_OPEN_REPARSE_POINT};

inline OpenHandle* HandleOf(const fuse_file_info* info)
{
    return reinterpret_cast<OpenHandle*>(info->fh);
}

// A name in a directory: 0, or the errno value for a name that cannot be.
int PathOfName(
    MountState& state, fuse_ino_t parent, const char* name, hosted::WideString* path, hosted::WideString* wide);

// Answers with the file's attributes as a directory entry, and counts a look-up.
void ReplyEntry(fuse_req_t request, fuse_ino_t parent, hosted::WideView name, PFILE_OBJECT file);
void ReplyAttributes(fuse_req_t request, PFILE_OBJECT file);
void ReplyStatus(fuse_req_t request, NTSTATUS status);

// What a program says about the file it makes.
hosted::FolderCreation CreationBy(fuse_req_t request, mode_t mode);

// Whoever may change a program's file but is not trusted with its powers takes them away by changing it: a file's
// set-id bits go, unless it was root.
// 0 or the errno value.
int DropPowers(fuse_req_t request, PFILE_OBJECT file);

// Opens the file of a node by the name under which it was found last or, with no name left, once more. 0 or the errno
// value: ESTALE when somebody changed the store beneath and the name leads to another file now. MountState::Names is
// held.
int OpenNode(const MountState& state, fuse_ino_t node, const OpenWish& wish, OpenedFile* file);

// A file of the volume for one request: the handle's, if the request came with one; for a look, one that the same
// process has open, since the host's kernel asks for attributes with every write; otherwise opened anew.
// MountState::Names is held to make it.
class NodeFile
{
public:
    NodeFile(MountState& state, fuse_ino_t node, const OpenWish& wish, const fuse_file_info* info = nullptr);
    ~NodeFile();
    NodeFile(const NodeFile&) = delete;
    NodeFile& operator=(const NodeFile&) = delete;

    explicit operator bool() const { return Get() != nullptr; }
    PFILE_OBJECT Get() const { return opened_ ? opened_.Get() : borrowed_; }
    // Why there is none, as errno value.
    int Error() const { return error_; }

private:
    OpenedFile opened_;
    int error_ = 0;
    PFILE_OBJECT borrowed_ = nullptr; // referenced
};

// The next three run `use` as the program that asks. It gives 0 when it has answered the request, otherwise the errno
// value of the answer.

template <class Use>
void AsRequester(fuse_req_t request, Use&& use)
{
    const Requester requester(request);
    if (const int error = requester ? use() : EACCES)
    {
        fuse_reply_err(request, error);
    }
}

// use(path, name) for a name in a directory, with MountState::Names held: shared, or alone with std::unique_lock.
template <template <class> class Lock = std::shared_lock, class Use>
void WithName(fuse_req_t request, fuse_ino_t parent, const char* name, Use&& use)
{
    AsRequester(request,
        [&]
        {
            const Lock<common::FairSharedMutex> names(StateOf(request).Names);
            hosted::WideString path;
            hosted::WideString wide;
            const int error = PathOfName(StateOf(request), parent, name, &path, &wide);
            return error != 0 ? error : use(path, wide);
        });
}

// use(file object) for a file.
template <class Use>
void WithFile(fuse_req_t request, fuse_ino_t node, const OpenWish& wish, const fuse_file_info* info, Use&& use)
{
    AsRequester(request,
        [&]
        {
            std::optional<NodeFile> file;
            {
                const std::shared_lock names(StateOf(request).Names);
                file.emplace(StateOf(request), node, wish, info);
            }
            return *file ? use(file->Get()) : file->Error();
        });
}

// Gives a handle to the host's kernel, with the answer that reply() makes; false when nobody took that, and the handle
// is gone.
template <class Reply>
bool HandOver(MountState& state, std::unique_ptr<OpenHandle> handle, fuse_file_info* info, Reply&& reply)
{
    OpenHandle* added = state.Handles.Add(std::move(handle));
    info->fh = reinterpret_cast<uint64_t>(added);
    if (reply() == 0)
    {
        return true;
    }
    state.Handles.Remove(added);
    return false;
}

// How the host system names what a descriptor stands for, for routines that take no descriptor of this kind.
std::string DescriptorPath(PFILE_OBJECT file);
}
