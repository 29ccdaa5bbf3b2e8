// What a file system keeps of each stream in use, and of each open of it.
#pragma once

#include "hosted/cc/cache.h"
#include "hosted/fs/store.h"
#include "common/mutex.h"

#include <atomic>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <vector>

namespace hosted
{
class StreamFileSystem;
struct ControlBlock;
struct OpenContext;

// What a control block shows the cache manager.
class StreamCache : public CachedStream
{
public:
    explicit StreamCache(ControlBlock& block) : block_(block) {}
    LONGLONG FileSize() const override;
    PFILE_OBJECT PagingFileObject() override;
    LONGLONG WriteFirst() const override;
    std::function<void()> BecameClean() override;

private:
    ControlBlock& block_;
};

enum class StreamKind
{
    Data,
    Directory,
    Volume, // what a volume open opens
    Other,  // neither data nor entries: a symbolic link
};

// The common header is what FILE_OBJECT::FsContext points to; filters read the size in it without a lock.
struct ControlBlock : FSRTL_COMMON_FCB_HEADER, std::enable_shared_from_this<ControlBlock>
{
    ControlBlock(StreamFileSystem& files, StreamKind kind, LONGLONG size);
    virtual ~ControlBlock() = default;

    StreamFileSystem& Files;
    const StreamKind Kind;
    SECTION_OBJECT_POINTERS Sections{};
    StreamCache Cached{*this};
    CacheMap* Map = nullptr;           // null but for data streams
    PFILE_OBJECT PagingFile = nullptr; // made at the first paging I/O
    std::once_flag PagingFileMade;
    std::shared_ptr<StoreStream> Data;

    // Order: Main, then the cache map's lock, then Inner. Paging I/O takes Inner only.
    std::shared_mutex Main; // shared to read, exclusive to write and to change the size
    // The size together with the store's bytes; shared to read these. The size only changes with all three held.
    common::FairSharedMutex Inner;
    bool Discarded = false; // the stream was deleted; changes with all three held
    std::atomic<bool> PagingFileStream = false;

    // Guarded by the tree lock; the count, which includes opens and others that need the block, may be read without.
    std::vector<OpenContext*> Opens;
    std::atomic<size_t> OpenCount = 0;
    bool TornDown = false;

    LONGLONG Size() const { return __atomic_load_n(&FileSize.QuadPart, __ATOMIC_RELAXED); }
    void SetSize(LONGLONG size);
};

// Where a directory query goes on.
struct DirectoryScan
{
    bool Started = false;
    WideString Pattern;
    ULONG Dots = 0;  // 0: "." comes next, 1: ".." does, 2: names
    WideString Last; // the last name that was dealt with, or how many of a listing were
    size_t NextListed = 0;
};

// Behind FILE_OBJECT::FsContext2. Guarded by the tree lock where it changes.
struct OpenContext
{
    virtual ~OpenContext() = default;

    std::shared_ptr<ControlBlock> Block;
    ACCESS_MASK Access = 0;
    ULONG Share = 0;
    bool DeleteOnClose = false;
    bool CleanedUp = false;
    DirectoryScan Scan;
};

// Null when the file object is not open.
inline ControlBlock* BlockOf(PFILE_OBJECT file)
{
    return static_cast<ControlBlock*>(static_cast<PFSRTL_COMMON_FCB_HEADER>(file->FsContext));
}

inline OpenContext* OpenOf(PFILE_OBJECT file)
{
    return static_cast<OpenContext*>(file->FsContext2);
}
}
