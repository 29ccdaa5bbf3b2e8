// The folder file system itself. Its routines stand in the files named for what they do.
#pragma once

#include "hosted/fs/folder/folder_volume.h"
#include "hosted/fs/folder/folder_tree.h"

#include <unordered_map>

namespace hosted
{
// What is opened or created: a name in a directory.
struct FolderPlace
{
    FolderEntry* Start = nullptr; // kept by the request's related file object, or the root
    int StartDescriptor = -1;
    const std::vector<WideString>* Components = nullptr; // below the start
    std::string Directory;                               // of the host, from the start to before the last component
    std::string Name;                                    // the last component; empty: the start itself

    std::string Path() const { return Directory.empty() ? Name : Directory + "/" + Name; }
};

// Locks: the name lock comes before all others of the file system, and is never held while filters are called. Names
// are looked up and made with it shared, and changed with it exclusive, so that the names in memory are those of the
// host whenever somebody looks.
class FolderFileSystem : public StreamFileSystem
{
public:
    FolderFileSystem(Volume& volume, FolderOptions options);
    ~FolderFileSystem() override;

    NTSTATUS NormalizedName(PFILE_OBJECT fileObject, ULONG options, WideString* path) override;
    bool ReadDisk(WideView path, std::string* bytes) override;
    NTSTATUS WriteDisk(WideView path, std::string_view bytes) override;

    int Stat(PFILE_OBJECT file, struct stat* info);
    int SetTimes(FolderBlock& block, const timespec times[2]);
    NTSTATUS Reserve(FolderBlock& block, LONGLONG offset, LONGLONG length);

private:
    // folder_open.cpp
    NTSTATUS OpenTarget(CreateRequest& request) override;
    NTSTATUS OpenVolume(CreateRequest& request);
    NTSTATUS FindPlace(const CreateRequest& request, FolderPlace* place);
    bool IsLeftOut(const FolderPlace& place) const;
    NTSTATUS LookUp(const FolderPlace& place, Descriptor* found);
    NTSTATUS OpenExisting(CreateRequest& request, const FolderPlace& place, Descriptor found, bool created);
    NTSTATUS CheckExisting(const CreateRequest& request, const struct stat& info, bool created) const;
    // folder_create.cpp
    NTSTATUS CreateNew(CreateRequest& request, const FolderPlace& place);

    // folder_open.cpp. The tree lock is held.
    NTSTATUS BlockFor(const struct stat& info, Descriptor found, bool forData, std::shared_ptr<FolderBlock>* block);
    NTSTATUS AttachOpen(CreateRequest& request, std::shared_ptr<FolderBlock> block, std::shared_ptr<FolderEntry> entry);
    FolderEntry* StartOf(PFILE_OBJECT file) const;
    bool IsHidden(const FolderEntry& directory, WideView name) const;

    // folder_life.cpp
    void Cleanup(PFILE_OBJECT file) override;
    void Written(ControlBlock& block) override;
    void Overwritten(ControlBlock& block, const CreateRequest& request) override;
    NTSTATUS SyncStore(ControlBlock& block) override;
    void Closing(OpenContext& open) override;
    void TornDown(ControlBlock& block) override;
    void ApplyTime(FolderBlock& block);
    // The tree lock is held. Counts a block that nobody can open any more, for Discard.
    void NoteLinks(FileKey file, std::vector<std::shared_ptr<ControlBlock>>* discard);
    // The name lock is held exclusive, the tree lock is not.
    NTSTATUS RemoveName(FolderEntry& entry, std::vector<std::shared_ptr<ControlBlock>>* discard);
    Descriptor DirectoryOf(const std::string& path);

    // folder_information.cpp, folder_rename.cpp
    NTSTATUS SetOther(FLT_IO_PARAMETER_BLOCK& operation) override;
    NTSTATUS SetBasic(FolderBlock& block, const FILE_BASIC_INFORMATION& basic);
    NTSTATUS SetDisposition(PFILE_OBJECT file, bool remove);
    NTSTATUS RemoveNow(PFILE_OBJECT file);
    struct NameChange;
    NTSTATUS PrepareChange(FLT_IO_PARAMETER_BLOCK& operation, NameChange* change);
    NTSTATUS Rename(FLT_IO_PARAMETER_BLOCK& operation, ULONG flags);
    NTSTATUS CheckClassicRename(const NameChange& change, bool replace);
    NTSTATUS RenameOnLinux(const NameChange& change, ULONG flags);
    void MoveEntries(NameChange& change, bool exchange, std::vector<std::shared_ptr<ControlBlock>>* discard);
    NTSTATUS Link(FLT_IO_PARAMETER_BLOCK& operation);

    // folder_query.cpp
    NTSTATUS Describe(PFILE_OBJECT file, FileFacts* facts, WideString* path) override;
    std::vector<StoredStream> StreamsOf(const ControlBlock& block) override;
    NTSTATUS PrepareScan(OpenContext& open, bool restart) override;
    bool NextEntry(OpenContext& open, ListedFile* listed) override;
    // Of what a name in a directory leads to; false when it leads nowhere.
    bool FactsAt(int directory, const char* name, FileFacts* facts);
    FolderBlock* FindBlock(FileKey key) const;

    const FolderOptions options_;
    const LookupRule rule_;
    Descriptor folder_;
    EndJournal journal_;

    std::shared_mutex names_;
    // Guarded by tree_.
    std::shared_ptr<FolderEntry> root_;
    std::unordered_map<FileKey, FolderBlock*, FileKeyHash> blocks_;
    std::weak_ptr<FolderBlock> volumeBlock_;
};

FileKey KeyOf(const struct stat& info);
}
