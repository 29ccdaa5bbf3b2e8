// What the file system over a store keeps in memory: nodes with their streams.
#pragma once

#include "hosted/fs/stream/control_block.h"

#include <map>

namespace hosted
{
struct Node;

constexpr ULONG SettableAttributes = 0x000001a7; // read-only, hidden, system, archive, normal, temporary

// A stream of a node. Guarded by the tree lock.
struct Stream
{
    WideString Name;   // empty: the node's data, or the directory itself
    LONGLONG Size = 0; // while Active is null
    bool DeletePending = false;
    ULONG Handles = 0;
    std::shared_ptr<ControlBlock> Active;

    LONGLONG CurrentSize() const;
};

// A file or a directory. Guarded by the tree lock.
struct Node : std::enable_shared_from_this<Node>
{
    StoredNode Info;        // Streams and ParentId are not kept up to date
    Node* Parent = nullptr; // null for the root and after deletion
    bool DeletePending = false;
    bool Deleted = false;
    bool Changed = false; // the store has older times or attributes
    ULONG Handles = 0;    // handles to any of its streams
    std::map<WideString, std::shared_ptr<Node>, LessNoCase> Children;
    std::map<WideString, Node*, LessNoCase> ShortNames;
    std::map<WideString, std::shared_ptr<Stream>, LessNoCase> Streams;
};

struct StoreBlock : ControlBlock
{
    StoreBlock(StreamFileSystem& files, StreamKind kind, std::shared_ptr<Node> node, std::shared_ptr<Stream> stream)
        : ControlBlock(files, kind, stream->Size), Owner(std::move(node)), Record(std::move(stream))
    {
    }

    const std::shared_ptr<Node> Owner;
    const std::shared_ptr<Stream> Record;
};

// Null when the file object is not open.
inline StoreBlock* StoreBlockOf(PFILE_OBJECT file)
{
    return static_cast<StoreBlock*>(BlockOf(file));
}
}
