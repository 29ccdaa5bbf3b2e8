// What a folder file system keeps in memory: the names in use and the files in use.
#pragma once

#include "hosted/fs/folder/folder_stream.h"
#include "hosted/fs/stream/stream_file_system.h"

#include <map>
#include <sys/stat.h>

namespace hosted
{
// Which file of the host it is; no other has the same while a descriptor of it is open.
struct FileKey
{
    dev_t Device = 0;
    ino_t Inode = 0;
    bool operator==(const FileKey&) const = default;
};

struct FileKeyHash
{
    size_t operator()(const FileKey& key) const { return std::hash<ino_t>()(key.Inode) ^ (key.Device << 7); }
};

// A name below the folder by which something is open, or below which something is. It follows renames. Guarded by the
// tree lock, under which references are also given up.
struct FolderEntry : std::enable_shared_from_this<FolderEntry>
{
    FolderEntry(std::shared_ptr<FolderEntry> parent, WideString name) : Parent(std::move(parent)), Name(std::move(name))
    {
    }
    ~FolderEntry();

    std::shared_ptr<FolderEntry> Parent; // null for the root
    WideString Name;
    std::map<WideString, FolderEntry*> Children;
    FileKey File;      // what was last opened by the name
    bool Gone = false; // the name leads there no more
    bool DeletePending = false;
    ULONG Handles = 0;

    bool IsRoot() const { return Parent == nullptr; }
    WideString Path() const;
    std::string LinuxPath() const; // relative to the folder; empty for the root
    // The name leads elsewhere from here on.
    void Detach();
    void Move(std::shared_ptr<FolderEntry> parent, WideView name);
    // Whether anything is open by this name or below it.
    bool InUse() const;
    // Makes what is missing.
    std::shared_ptr<FolderEntry> Child(WideView name);
    FolderEntry* FindChild(WideView name) const;
};

struct FolderBlock : ControlBlock
{
    FolderBlock(StreamFileSystem& files, StreamKind kind, LONGLONG size, FileKey key, Descriptor descriptor)
        : ControlBlock(files, kind, size), Key(key), Descriptor(std::move(descriptor))
    {
    }

    const FileKey Key;
    const Descriptor Descriptor; // none for the volume

    // Guarded by the tree lock.
    ULONG Handles = 0;
    bool Unlinked = false; // its last name is gone
    // The time of the last write as programs know it; the host takes that of the write to the stored file.
    bool TimePinned = false;
    timespec WriteTime = {};

    FolderStream& Stored() const { return static_cast<FolderStream&>(*Data); }
};

struct FolderOpen : OpenContext
{
    std::shared_ptr<FolderEntry> Entry;
    // The names of the directory when the scan began.
    std::vector<std::string> Listing;
};

// Null when the file object is not open.
inline FolderBlock* FolderBlockOf(PFILE_OBJECT file)
{
    return static_cast<FolderBlock*>(BlockOf(file));
}

inline FolderOpen* FolderOpenOf(PFILE_OBJECT file)
{
    return static_cast<FolderOpen*>(OpenOf(file));
}
}
