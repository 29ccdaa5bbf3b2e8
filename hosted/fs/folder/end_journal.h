// What a folder file system writes down before it replaces the last block of a file by a shorter one.
#pragma once

#include "hosted/fs/folder/stored_changes.h"

#include <atomic>
#include <mutex>
#include <set>
#include <string>

namespace hosted
{
// The bytes with which a filter enciphers: all of a block together, or, of a shorter last block, each for itself.
constexpr LONGLONG BlockBytes = 16;

constexpr LONGLONG BlockDown(LONGLONG offset)
{
    return offset / BlockBytes * BlockBytes;
}

constexpr LONGLONG BlockUp(LONGLONG offset)
{
    return BlockDown(offset + BlockBytes - 1);
}

// The file is about to end at End, inside of a block that was whole before.
struct EndRecord
{
    LONGLONG End;
    UCHAR Tail[BlockBytes]; // what the file then has from BlockDown(End) on
};

// Carries a record out: the tail is written and the file cut. Any number of times with the same result.
int ApplyEndRecord(int file, const EndRecord& record);

// One small file for each record, in a hidden directory at the top of the folder, so that a folder works on every kind
// of host file system. A file is named by its inode and time of birth: no other file is ever taken for it.
class EndJournal
{
public:
    static constexpr const char* DirectoryName = ".tarnveil-journal";

    // `root`: a descriptor of the folder, which outlives the journal.
    explicit EndJournal(int root);

    // By which the journal knows the open file; empty on failure, with errno.
    static std::string KeyOf(int file);

    // 0 or an error number.
    int Put(const std::string& key, const EndRecord& record);
    int Remove(const std::string& key);
    // Finishes what an earlier process may have left undone of a file that is being opened for the first time. The
    // descriptor may be one of the path alone. 0 or an error number.
    int Recover(int descriptor);
    // Makes removals as lasting as the files themselves.
    int Sync();

private:
    int Directory(bool make);
    void ListPending();

    const int root_;
    std::mutex lock_;
    Descriptor directory_;
    std::set<std::string> pending_; // left by an earlier process
    std::atomic<size_t> pendingCount_ = 0;
};
}
