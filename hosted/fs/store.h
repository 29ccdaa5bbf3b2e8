// Where a file system keeps its bytes, and one over a store also what it knows of files.
#pragma once

#include "hosted/rtl/wide_string.h"

#include <memory>
#include <string>
#include <vector>

namespace hosted
{
constexpr ULONGLONG RootFileId = 0x0005000000000005;
constexpr ULONGLONG FirstFileId = 0x0001000000000024;

struct StoredStream
{
    WideString Name; // empty: the file's data
    LONGLONG Size;
};

// One file or directory. The root directory has RootFileId, no name, and is its own parent.
struct StoredNode
{
    ULONGLONG Id = 0;
    ULONGLONG ParentId = 0;
    WideString Name;
    WideString ShortName; // empty: none
    bool Directory = false;
    ULONG Attributes = 0;
    LONGLONG CreationTime = 0;
    LONGLONG LastAccessTime = 0;
    LONGLONG LastWriteTime = 0;
    LONGLONG ChangeTime = 0;
    std::vector<StoredStream> Streams; // only filled by Load
};

// The bytes of one stream. Any number of threads; a single read or write is not torn by another call.
class StoreStream
{
public:
    virtual ~StoreStream() = default;
    // The range must lie within the size. Several threads may read at once, while nothing is changed.
    virtual NTSTATUS Read(LONGLONG offset, void* buffer, ULONG length) = 0;
    virtual NTSTATUS Write(LONGLONG offset, const void* buffer, ULONG length) = 0;
    // What is added reads as zeros and takes no room. STATUS_DISK_FULL.
    virtual NTSTATUS SetSize(LONGLONG size) = 0;
    virtual LONGLONG Size() = 0;
    // Makes room for bytes that will be written later and may lie past the size. STATUS_DISK_FULL.
    virtual NTSTATUS Reserve(LONGLONG, LONGLONG) { return STATUS_SUCCESS; }
    // The offset of a byte whose page has to be written before any page behind it; -1: any order will do.
    virtual LONGLONG WriteFirst() const { return -1; }
};

// Every routine may be called by several threads, but changes of names come one at a time. Failures carry statuses
// as a file system returns them.
class Store
{
public:
    virtual ~Store() = default;
    // Everything there is, the root first, parents before their children. Called once.
    virtual std::vector<StoredNode> Load() = 0;
    // Whether a file of that name with a stream of that name ("" for none) can be kept.
    virtual bool CanHold(WideView name, WideView stream) = 0;
    // A new directory, or a new file with an empty data stream.
    virtual NTSTATUS Create(const StoredNode& node) = 0;
    // Times, attributes, short name.
    virtual NTSTATUS Save(const StoredNode& node) = 0;
    // Moves the node to the parent and name given, which are free.
    virtual NTSTATUS Rename(const StoredNode& node) = 0;
    // With all its streams; a directory is empty.
    virtual NTSTATUS Remove(ULONGLONG id) = 0;
    virtual NTSTATUS CreateStream(ULONGLONG id, WideView stream) = 0;
    virtual NTSTATUS RemoveStream(ULONGLONG id, WideView stream) = 0;
    // The stream must exist; the object stays usable until the stream is removed, also across renames.
    virtual std::shared_ptr<StoreStream> OpenStream(ULONGLONG id, WideView stream) = 0;
};
}
