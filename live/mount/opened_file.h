// Files of the volume, opened through the hosted I/O manager and the filters.
#pragma once

#include "hosted/fs/folder/folder_volume.h"
#include "hosted/io/file.h"
#include "live/mount/node_table.h"
#include "hosted/ps/process.h"

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace live
{
// Rights that Windows has and that only matter to those who judge an open.
constexpr ACCESS_MASK ReadExtendedAttributes = 0x0008;
constexpr ACCESS_MASK WriteExtendedAttributes = 0x0010;
constexpr ACCESS_MASK Traverse = 0x0020;
// What every handle that the host's kernel holds is opened for.
constexpr ACCESS_MASK LookRights = FILE_READ_ATTRIBUTES | ReadExtendedAttributes;

struct OpenWish
{
    ACCESS_MASK Access = FILE_READ_ATTRIBUTES;
    ULONG Disposition = FILE_OPEN;
    ULONG Options = 0;
    const hosted::FolderCreation* Creation = nullptr;
    PFILE_OBJECT Root = nullptr; // what the path is relative to
};

// One open file object; closed with it.
class OpenedFile
{
public:
    OpenedFile() = default;
    // As the process that the thread plays. Everything may be shared: Linux programs never lock each other out by
    // opening. An empty path opens the root once more; without one it is a file whose name is gone:
    // STATUS_OBJECT_NAME_NOT_FOUND.
    OpenedFile(const hosted::WideString& path, const OpenWish& wish);
    ~OpenedFile() { Close(); }
    OpenedFile(OpenedFile&& other) noexcept;
    OpenedFile& operator=(OpenedFile&& other) noexcept;

    NTSTATUS Status() const { return status_; }
    explicit operator bool() const { return file_ != nullptr; }
    PFILE_OBJECT Get() const { return file_; }
    void Close();

private:
    PFILE_OBJECT file_ = nullptr;
    NTSTATUS status_ = STATUS_OBJECT_NAME_NOT_FOUND;
};

struct DirectoryEntry
{
    std::string Name;
    ino_t Inode;
    mode_t Type; // S_IFDIR, S_IFREG, S_IFLNK; 0: something else
};

// What the host's kernel holds open.
struct OpenHandle
{
    // By the process that the thread plays.
    OpenHandle();
    ~OpenHandle();
    OpenHandle(const OpenHandle&) = delete;
    OpenHandle& operator=(const OpenHandle&) = delete;

    NodeId Node = 0;
    hosted::Process* const Opener; // referenced
    OpenedFile File;               // cached
    OpenedFile Direct;             // non-cached as well, when it was opened with O_DIRECT
    std::mutex Lock;
    // Of a directory, as they were when it was read from its start; guarded by Lock.
    std::vector<DirectoryEntry> Entries;
};

// Thread-safe.
class HandleSet
{
public:
    OpenHandle* Add(std::unique_ptr<OpenHandle> handle);
    void Remove(OpenHandle* handle);
    // A file object of the node that this process opened, referenced; null: none is open.
    PFILE_OBJECT OpenedBy(const hosted::Process* process, NodeId node) const;
    // Closes everything.
    void Clear();

private:
    mutable std::mutex lock_;
    std::multimap<NodeId, std::unique_ptr<OpenHandle>> handles_;
};

// The files that have no known name left, but that the host's kernel still knows: a program may be about to open what
// another one replaces at this moment. Thread-safe.
class NamelessFiles
{
public:
    // `file`: opened by the name that it had, so that further opens are judged by that.
    void Keep(NodeId node, OpenedFile file);
    // Opens it once more. STATUS_OBJECT_NAME_NOT_FOUND: it is not kept.
    OpenedFile Open(NodeId node, OpenWish wish) const;
    void Drop(NodeId node);
    void Clear();

private:
    mutable std::mutex lock_;
    std::map<NodeId, std::shared_ptr<const OpenedFile>> files_;
};
}
