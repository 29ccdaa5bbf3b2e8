// The file system over a store. Its routines stand in the files named for what they do.
#pragma once

#include "hosted/fs/store/node.h"
#include "hosted/fs/store/store_volume.h"
#include "hosted/fs/stream/stream_file_system.h"

#include <unordered_map>

namespace hosted
{
class StoreFileSystem : public StreamFileSystem
{
public:
    StoreFileSystem(Volume& volume, std::unique_ptr<Store> store, StoreOptions options);
    ~StoreFileSystem() override;

    NTSTATUS NormalizedName(PFILE_OBJECT fileObject, ULONG options, WideString* path) override;
    bool ReadDisk(WideView path, std::string* bytes) override;
    NTSTATUS WriteDisk(WideView path, std::string_view bytes) override;

private:
    // store_tree.cpp: the tree lock is held, but for Load.
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

    // store_create.cpp
    NTSTATUS OpenTarget(CreateRequest& request) override;
    NTSTATUS OpenLocked(CreateRequest& request);
    NTSTATUS FindTarget(CreateRequest& request, Node** parent, Node** node);
    NTSTATUS OpenExisting(CreateRequest& request, Node* node);
    NTSTATUS CreateNew(CreateRequest& request, Node* parent, WideView name);
    NTSTATUS AttachOpen(CreateRequest& request, Node* node, Stream* stream);
    void Overwritten(ControlBlock& block, const CreateRequest& request) override;

    // store_streams.cpp
    std::shared_ptr<ControlBlock> BlockFor(Node* node, Stream* stream);
    void Cleanup(PFILE_OBJECT file) override;
    void Written(ControlBlock& block) override;
    void TornDown(ControlBlock& block) override;

    // store_information.cpp, store_rename.cpp
    NTSTATUS SetOther(FLT_IO_PARAMETER_BLOCK& operation) override;
    NTSTATUS SetBasic(StoreBlock& block, const FILE_BASIC_INFORMATION& basic);
    NTSTATUS SetDisposition(PFILE_OBJECT file, bool remove);
    NTSTATUS Rename(FLT_IO_PARAMETER_BLOCK& operation);
    NTSTATUS RenameLocked(
        Node* node, Node* directory, WideView name, bool replace, std::vector<std::shared_ptr<ControlBlock>>* discard);
    NTSTATUS MoveNode(Node* node, Node* directory, WideView name);
    NTSTATUS RenameTarget(FLT_IO_PARAMETER_BLOCK& operation, Node* node, Node** directory, WideString* name) const;

    // store_query.cpp
    NTSTATUS Describe(PFILE_OBJECT file, FileFacts* facts, WideString* path) override;
    std::vector<StoredStream> StreamsOf(const ControlBlock& block) override;
    NTSTATUS PrepareScan(OpenContext& open, bool restart) override;
    bool NextEntry(OpenContext& open, ListedFile* listed) override;

    const std::unique_ptr<Store> store_;
    const StoreOptions options_;

    // Guarded by tree_.
    std::shared_ptr<Node> root_;
    std::shared_ptr<Node> volumeNode_; // what a volume open opens; in no directory
    std::unordered_map<ULONGLONG, Node*> nodesById_;
    ULONGLONG nextId_ = FirstFileId;
};
}
