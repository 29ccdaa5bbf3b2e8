// The stored side of one file of a folder file system.
#pragma once

#include "hosted/fs/folder/end_journal.h"
#include "hosted/fs/store.h"

#include <atomic>
#include <memory>
#include <mutex>
#include <optional>

namespace hosted
{
// The size that programs see (the logical one) and that of the stored file (the physical one) may differ for a while,
// because a filter enciphers the last block of a file by its size: whole blocks together, the bytes of a shorter last
// block each for itself. So that what was flushed stays readable wherever the process is killed, these things hold at
// every moment: a block that the stored file has whole was written while it lay within the size, and the bytes of a
// shorter last block were written as such a block.
//
// - A file that grows keeps its stored size until its last block, if shorter, is written again. That page goes before
//   all behind it (WriteFirst), and as one write, which the host cuts at no place but between pages.
// - A file that shrinks is cut behind the block that holds its new end. When that block is written again, what the end
//   of the file is to be is put into a journal first, then written and the file cut.
// - What lies between the stored and the logical size reads as zeros.
//
// All but Ready, Physical and Sync are called with the inner lock of the stream's control block held, which Read, Size
// and WriteFirst may share.
class FolderStream : public StoreStream
{
public:
    // `path`: a descriptor of the file, of its path alone or also for its data; lives as long as this object.
    // `journal` is null on a volume that is not written.
    FolderStream(int path, LONGLONG size, EndJournal* journal)
        : path_(path), journal_(journal), size_(size), physical_(size)
    {
    }

    // Opens the file's data, for writing or only for reading. Any thread.
    NTSTATUS Ready(bool write);
    // The data of a file just created is open already.
    void Adopt(int data) { write_ = data; }
    LONGLONG Physical() const { return physical_.load(std::memory_order_relaxed); }
    // What was written becomes lasting. Any thread.
    NTSTATUS Sync();

    NTSTATUS Read(LONGLONG offset, void* buffer, ULONG length) override;
    NTSTATUS Write(LONGLONG offset, const void* buffer, ULONG length) override;
    NTSTATUS SetSize(LONGLONG size) override;
    LONGLONG Size() override { return size_; }
    NTSTATUS Reserve(LONGLONG offset, LONGLONG length) override;
    LONGLONG WriteFirst() const override;

private:
    int Number(bool write);
    int Cut(LONGLONG size);
    // Extends the stored file where no page is left to be written that would do so.
    int Settle();
    // Brings an end that was begun to be shortened to its goal.
    int FinishEnd();
    int BeginEnd(LONGLONG offset, const void* buffer);
    bool TearsLastBlock(LONGLONG offset, ULONG length) const;

    const int path_;
    EndJournal* const journal_;
    LONGLONG size_;
    std::atomic<LONGLONG> physical_;
    std::optional<EndRecord> ending_;     // in the journal
    std::string key_;                     // ... under this name
    std::atomic<bool> journaled_ = false; // since the last Sync

    std::mutex open_; // a leaf; guards the descriptors, which do not change once they are there
    Descriptor read_;
    Descriptor ownWrite_;
    int write_ = -1;
};
}
