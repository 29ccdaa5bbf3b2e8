// The file system itself. Its routines stand in the files named for what they do.
#pragma once

#include "hosted/fs/file_system.h"
#include "hosted/fs/names.h"
#include "hosted/fs/node.h"

#include <unordered_map>

namespace host
{
// Whether the name of a file object that is being opened goes on from its related file object.
bool IsRelativeName(PFILE_OBJECT file);

// Locks: the main lock of one stream, then its cache map's lock, then its inner lock; the tree lock may be taken under
// any of them and is never held while filters are called or another of these locks is taken. Operations on a stream
// whose file object is open never meet its teardown.
class DiskFileSystem : public FileSystem
{
public:
    DiskFileSystem(Volume& volume, std::unique_ptr<Store> store, FileSystemOptions options);
    ~DiskFileSystem() override;

    NTSTATUS Dispatch(FLT_IO_PARAMETER_BLOCK& operation, IO_STATUS_BLOCK& status) override;
    bool FastIoPossible(PFILE_OBJECT fileObject, bool write, ULONG length) override;
    NTSTATUS NormalizedName(PFILE_OBJECT fileObject, ULONG options, WideString* path) override;
    bool IsDirectory(PFILE_OBJECT fileObject) override;
    bool IsPagingFile(PFILE_OBJECT fileObject) override;

    bool ReadDisk(WideView path, std::string* bytes);
    NTSTATUS WriteDisk(WideView path, std::string_view bytes);
    // Frees the control block if nobody has the stream open and nothing is left to write. No lock is needed; locks
    // of another stream may be held.
    void TryTearDown(const std::shared_ptr<ControlBlock>& block);
    Volume& TargetVolume() { return volume_; }

private:
    // tree.cpp: the tree lock is held, but for Load.
    void Load();
    void NameShort(Node* node);
    Node* FindChild(Node* directory, WideView name) const;
    // The node that the first `count` components lead to. STATUS_OBJECT_PATH_NOT_FOUND.
    NTSTATUS Walk(Node* start, const std::vector<WideString>& components, size_t count, Node** found) const;
    // Where a file object's name starts: its related file object's node or the root.
    Node* StartOf(PFILE_OBJECT file) const;
    NTSTATUS NodeByFileId(WideView name, Node** found) const;
    // The data stream that a path names; null when there is none.
    Stream* FindStream(WideView path, Node** node) const;
    WideString PathOf(const Node* node) const;
    NTSTATUS AddNode(Node* parent, WideView name, bool directory, ULONG attributes, Node** added);
    NTSTATUS AddStream(Node* node, WideView name, Stream** added);
    // Takes the node out of the tree and the store. Its streams' control blocks still have to be discarded, after
    // the tree lock was released.
    NTSTATUS RemoveNode(Node* node, std::vector<std::shared_ptr<ControlBlock>>* discard);
    NTSTATUS RemoveStream(Node* node, Stream* stream, std::vector<std::shared_ptr<ControlBlock>>* discard);
    void SaveIfChanged(Node* node);

    // create.cpp
    struct CreateRequest;
    NTSTATUS Create(FLT_IO_PARAMETER_BLOCK& operation, ULONG_PTR* information);
    NTSTATUS OpenLocked(CreateRequest& request);
    NTSTATUS FindTarget(CreateRequest& request, Node** parent, Node** node);
    NTSTATUS OpenExisting(CreateRequest& request, Node* node);
    NTSTATUS CreateNew(CreateRequest& request, Node* parent, WideView name);
    NTSTATUS AttachOpen(CreateRequest& request, Node* node, Stream* stream);
    NTSTATUS Overwrite(CreateRequest& request);

    // streams.cpp
    std::shared_ptr<ControlBlock> Activate(Node* node, Stream* stream);
    // Gives back what was counted in OpenCount without an open.
    void Release(const std::shared_ptr<ControlBlock>& block);
    // Throws away what the cache holds of deleted streams, and gives the blocks back.
    void Discard(const std::vector<std::shared_ptr<ControlBlock>>& blocks);
    NTSTATUS Resize(ControlBlock& block, LONGLONG newSize, bool rewriteEnds);
    NTSTATUS Cleanup(PFILE_OBJECT file);
    NTSTATUS Close(PFILE_OBJECT file);
    NTSTATUS Flush(PFILE_OBJECT file);
    NTSTATUS FlushAll();
    void Written(ControlBlock& block);

    // read_write.cpp
    NTSTATUS Read(FLT_IO_PARAMETER_BLOCK& operation, ULONG_PTR* information);
    NTSTATUS Write(FLT_IO_PARAMETER_BLOCK& operation, ULONG_PTR* information);
    NTSTATUS ReadPages(ControlBlock& block, FLT_IO_PARAMETER_BLOCK& operation, ULONG_PTR* information);
    NTSTATUS WritePages(ControlBlock& block, FLT_IO_PARAMETER_BLOCK& operation, ULONG_PTR* information);
    NTSTATUS ReadNonCached(ControlBlock& block, LONGLONG offset, ULONG length, void* data, ULONG_PTR* information);
    NTSTATUS WriteNonCached(
        ControlBlock& block, LONGLONG offset, ULONG length, const void* data, ULONG_PTR* information);
    NTSTATUS WriteStore(ControlBlock& block, LONGLONG offset, ULONG length, const void* data);
    NTSTATUS WriteCached(ControlBlock& block, LONGLONG offset, ULONG length, const void* data, ULONG_PTR* information);
    bool IsSectorAligned(LONGLONG offset, ULONG length) const;

    // set_information.cpp, rename.cpp
    NTSTATUS SetInformation(FLT_IO_PARAMETER_BLOCK& operation);
    NTSTATUS SetEndOfFile(ControlBlock& block, LONGLONG size);
    NTSTATUS SetBasic(ControlBlock& block, const FILE_BASIC_INFORMATION& basic);
    NTSTATUS SetDisposition(PFILE_OBJECT file, bool remove);
    NTSTATUS Rename(FLT_IO_PARAMETER_BLOCK& operation);
    NTSTATUS RenameLocked(Node* node, Node* directory, WideView name, bool replace,
        std::vector<std::shared_ptr<ControlBlock>>* discard);
    NTSTATUS MoveNode(Node* node, Node* directory, WideView name);
    NTSTATUS RenameTarget(FLT_IO_PARAMETER_BLOCK& operation, Node* node, Node** directory, WideString* name) const;

    // query_information.cpp, query_directory.cpp
    NTSTATUS QueryInformation(FLT_IO_PARAMETER_BLOCK& operation, ULONG_PTR* information);
    NTSTATUS QueryDirectory(FLT_IO_PARAMETER_BLOCK& operation, ULONG_PTR* information);
    NTSTATUS FillDirectory(OpenContext& open, FLT_IO_PARAMETER_BLOCK& operation, std::string* entries);

    Volume& volume_;
    const std::unique_ptr<Store> store_;
    const FileSystemOptions options_;

    mutable std::mutex tree_;
    // Guarded by tree_.
    std::shared_ptr<Node> root_;
    std::shared_ptr<Node> volumeNode_; // what a volume open opens; in no directory
    std::unordered_map<ULONGLONG, Node*> nodesById_;
    ULONGLONG nextId_ = FirstFileId;
    size_t activeStreams_ = 0;
};
}
