// What the kernel of the host system knows by number, and where it lies on the volume.
#pragma once

#include "hosted/rtl/wide_string.h"

#include <cstdint>
#include <map>
#include <memory>
#include <shared_mutex>
#include <sys/stat.h>
#include <unordered_map>
#include <vector>

namespace live
{
using NodeId = std::uint64_t;

// One number per file, whatever number of names it has, so that the host's kernel keeps one page cache for it. A number
// is never given out again. Thread-safe; one leaf lock.
class NodeTable
{
public:
    static constexpr NodeId Root = 1;
    static constexpr NodeId Nobody = 0;

    // `volume`: the device that every path starts with.
    explicit NodeTable(hosted::WideString volume);

    // The file was found there: its number, with one more look-up to be forgotten.
    NodeId Enter(NodeId parent, hosted::WideView name, const struct stat& info);
    // True: nothing is known of it any more.
    bool Forget(NodeId id, std::uint64_t lookups);

    // Where the file was found last; empty when no name of it is known, as when that one was removed.
    hosted::WideString PathOf(NodeId id) const;
    // A name in a directory; empty when the directory is gone.
    hosted::WideString PathOf(NodeId parent, hosted::WideView name) const;

    // Whether that is the file of the node, and not another that its name leads to now.
    bool Is(NodeId id, const struct stat& info) const;

    // A name went away, or leads to something else now. The first two tell whose last known name it was that is gone,
    // or Nobody. As long as that one is not forgotten, its file must be kept from becoming another with its inode
    // number.
    NodeId Removed(NodeId parent, hosted::WideView name);
    NodeId Moved(NodeId parent, hosted::WideView name, NodeId newParent, hosted::WideView newName);
    void Exchanged(NodeId parent, hosted::WideView name, NodeId newParent, hosted::WideView newName);

    size_t Count() const;

private:
    using Inode = std::pair<dev_t, ino_t>;
    struct Node;
    struct Place
    {
        std::shared_ptr<Node> Directory;
        hosted::WideString Name;
    };
    struct Node
    {
        NodeId Id;
        Inode Key;
        std::uint64_t Lookups = 0;
        std::vector<Place> Places; // its names, the one that was looked up last at the end
    };

    std::shared_ptr<Node> Find(NodeId id) const;
    std::shared_ptr<Node> FindAt(NodeId parent, hosted::WideView name) const;
    bool AppendPath(const Node& node, hosted::WideString* path) const;
    void Put(const std::shared_ptr<Node>& node, NodeId parent, hosted::WideView name);
    std::shared_ptr<Node> TakeAway(NodeId parent, hosted::WideView name);
    static NodeId IfNameless(const std::shared_ptr<Node>& node);

    const hosted::WideString volume_;
    mutable std::shared_mutex lock_;
    NodeId next_ = Root + 1;
    std::unordered_map<NodeId, std::shared_ptr<Node>> byId_;
    std::map<Inode, std::shared_ptr<Node>> byInode_;
    // Where each place leads.
    std::map<std::pair<NodeId, hosted::WideString>, NodeId> byName_;
};
}
