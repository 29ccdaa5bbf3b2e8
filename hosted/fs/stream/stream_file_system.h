// What file systems of the hosted kernel have in common: opens of streams, their data between cache and store, and
// the records in which programs are told of files. Where names come from is each file system's own affair.
#pragma once

#include "hosted/fs/file_facts.h"
#include "hosted/fs/file_system.h"
#include "hosted/fs/names.h"
#include "hosted/fs/stream/control_block.h"

#include <unordered_set>

namespace hosted
{
// Whether the name of a file object that is being opened goes on from its related file object.
bool IsRelativeName(PFILE_OBJECT file);

constexpr ACCESS_MASK DataReadRights = FILE_READ_DATA | FILE_EXECUTE;
constexpr ACCESS_MASK DataWriteRights = FILE_WRITE_DATA | FILE_APPEND_DATA;

// Replaces the old contents of what it opens.
bool Overwrites(ULONG disposition);
// Fails where there is nothing to open.
bool NeedsExisting(ULONG disposition);

struct CreateRequest
{
    PFILE_OBJECT File;
    ULONG Disposition;
    ULONG Options;
    ULONG Attributes;
    ACCESS_MASK Access;
    ULONG Share;
    UCHAR Flags;
    const void* Ea;
    ULONG EaLength;
    bool VolumeOpen = false;
    ParsedPath Path;
    ULONG_PTR Information = 0; // FILE_OPENED and so on
    bool Truncate = false;     // the stream's old contents go once the tree lock is released

    bool WantsDirectory() const { return (Options & FILE_DIRECTORY_FILE) != 0; }
    bool WantsFile() const { return (Options & FILE_NON_DIRECTORY_FILE) != 0; }
    bool ById() const { return (Options & FILE_OPEN_BY_FILE_ID) != 0; }
};

// Locks: the main lock of one stream, then its cache map's lock, then its inner lock; the tree lock may be taken under
// any of them and is never held while filters are called or another of these locks is taken. Operations on a stream
// whose file object is open never meet its teardown.
class StreamFileSystem : public StoredFileSystem
{
public:
    NTSTATUS Dispatch(FLT_IO_PARAMETER_BLOCK& operation, IO_STATUS_BLOCK& status) override;
    bool FastIoPossible(PFILE_OBJECT fileObject, bool write, ULONG length) override;
    void Settled(PFILE_OBJECT fileObject) override;
    bool IsDirectory(PFILE_OBJECT fileObject) override;
    bool IsPagingFile(PFILE_OBJECT fileObject) override;

    // Frees the control block if nobody has the stream open and nothing is left to write. No lock is needed; locks
    // of another stream may be held.
    void TryTearDown(const std::shared_ptr<ControlBlock>& block);
    Volume& TargetVolume() { return volume_; }

protected:
    StreamFileSystem(Volume& volume, bool strictEndOfFile) : volume_(volume), strictEndOfFile_(strictEndOfFile) {}
    // For destructors: bug check while streams are open or dirty.
    void RequireNothingActive();

    // What each kind of file system does in its own way.

    // Finds or makes what the request names and attaches its file object to it.
    virtual NTSTATUS OpenTarget(CreateRequest& request) = 0;
    // The stream's contents were replaced by nothing. Main lock not held.
    virtual void Overwritten(ControlBlock& block, const CreateRequest& request) = 0;
    // The last handle of a file object is gone. Called again at the close, where it has nothing left to do.
    virtual void Cleanup(PFILE_OBJECT file) = 0;
    // Data was written or the size was set by a program.
    virtual void Written(ControlBlock& block) = 0;
    // The cache has written everything; the store has to keep it.
    virtual NTSTATUS SyncStore(ControlBlock&) { return STATUS_SUCCESS; }
    // What SetInformation leaves.
    virtual NTSTATUS SetOther(FLT_IO_PARAMETER_BLOCK& operation) = 0;

    // The tree lock is held for these.
    virtual NTSTATUS Describe(PFILE_OBJECT file, FileFacts* facts, WideString* path) = 0;
    virtual std::vector<StoredStream> StreamsOf(const ControlBlock& block) = 0;
    // Before each query; `restart` also before the first. STATUS_DELETE_PENDING where the directory is going.
    virtual NTSTATUS PrepareScan(OpenContext& open, bool restart) = 0;
    // The entry after what the scan has dealt with, past which the scan then stands.
    virtual bool NextEntry(OpenContext& open, ListedFile* listed) = 0;
    // An open ends.
    virtual void Closing(OpenContext&) {}
    // From here on an open of the stream makes a new control block.
    virtual void TornDown(ControlBlock& block) = 0;

    // stream_open.cpp. The tree lock is held.
    NTSTATUS CheckSharing(const ControlBlock& block, const CreateRequest& request) const;
    // `open` belongs to the file object from then on.
    void Attach(const CreateRequest& request, std::shared_ptr<ControlBlock> block, std::unique_ptr<OpenContext> open);

    // stream_life.cpp
    // With a cache map if it has data. The tree lock is held.
    void Activate(const std::shared_ptr<ControlBlock>& block);
    // Gives back what was counted in OpenCount without an open.
    void Release(const std::shared_ptr<ControlBlock>& block);
    // Throws away what the cache holds of deleted streams, and gives the blocks back.
    void Discard(const std::vector<std::shared_ptr<ControlBlock>>& blocks);
    NTSTATUS Resize(ControlBlock& block, LONGLONG newSize, bool rewriteEnds);
    NTSTATUS SetEndOfFile(ControlBlock& block, LONGLONG size);

    // stream_data.cpp. The main lock is held.
    NTSTATUS ReserveRoom(ControlBlock& block, LONGLONG begin, LONGLONG end);

    Volume& volume_;
    mutable std::mutex tree_;

private:
    NTSTATUS Create(FLT_IO_PARAMETER_BLOCK& operation, ULONG_PTR* information);
    NTSTATUS Overwrite(CreateRequest& request);

    NTSTATUS Close(PFILE_OBJECT file);
    NTSTATUS Flush(PFILE_OBJECT file);
    NTSTATUS FlushStream(ControlBlock& block);
    NTSTATUS FlushAll();

    // stream_data.cpp
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

    // stream_information.cpp, stream_directory.cpp
    NTSTATUS SetInformation(FLT_IO_PARAMETER_BLOCK& operation);
    NTSTATUS QueryInformation(FLT_IO_PARAMETER_BLOCK& operation, ULONG_PTR* information);
    NTSTATUS QueryDirectory(FLT_IO_PARAMETER_BLOCK& operation, ULONG_PTR* information);
    NTSTATUS FillDirectory(OpenContext& open, FLT_IO_PARAMETER_BLOCK& operation, std::string* records);

    const bool strictEndOfFile_;
    std::unordered_set<std::shared_ptr<ControlBlock>> active_; // guarded by the tree lock
};

// The contents of the information buffer of a set request, which need not be aligned; false when it is too short.
template <class Record>
bool TakeRecord(const FLT_IO_PARAMETER_BLOCK& operation, Record* record)
{
    const auto& parameters = operation.Parameters.SetFileInformation;
    if (parameters.Length < sizeof(Record))
    {
        return false;
    }
    RtlCopyMemory(record, parameters.InfoBuffer, sizeof(Record));
    return true;
}
}
