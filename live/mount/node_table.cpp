#include "live/mount/node_table.h"

#include <algorithm>
#include <mutex>

namespace live
{
NodeTable::NodeTable(hosted::WideString volume) : volume_(std::move(volume))
{
    auto root = std::make_shared<Node>();
    root->Id = Root;
    byId_.emplace(Root, std::move(root));
}

std::shared_ptr<NodeTable::Node> NodeTable::Find(NodeId id) const
{
    const auto found = byId_.find(id);
    return found == byId_.end() ? nullptr : found->second;
}

std::shared_ptr<NodeTable::Node> NodeTable::FindAt(NodeId parent, hosted::WideView name) const
{
    const auto found = byName_.find({parent, hosted::WideString(name)});
    return found == byName_.end() ? nullptr : Find(found->second);
}

// The one that had it.
std::shared_ptr<NodeTable::Node> NodeTable::TakeAway(NodeId parent, hosted::WideView name)
{
    std::shared_ptr<Node> node = FindAt(parent, name);
    if (node != nullptr)
    {
        std::erase_if(
            node->Places, [&](const Place& place) { return place.Directory->Id == parent && place.Name == name; });
    }
    byName_.erase({parent, hosted::WideString(name)});
    return node;
}

NodeId NodeTable::IfNameless(const std::shared_ptr<Node>& node)
{
    return node != nullptr && node->Places.empty() ? node->Id : Nobody;
}

void NodeTable::Put(const std::shared_ptr<Node>& node, NodeId parent, hosted::WideView name)
{
    TakeAway(parent, name);
    if (std::shared_ptr<Node> directory = Find(parent))
    {
        node->Places.push_back({std::move(directory), hosted::WideString(name)});
        byName_[{parent, hosted::WideString(name)}] = node->Id;
    }
}

NodeId NodeTable::Enter(NodeId parent, hosted::WideView name, const struct stat& info)
{
    const Inode key{info.st_dev, info.st_ino};
    std::unique_lock lock(lock_);
    std::shared_ptr<Node>& node = byInode_[key];
    if (node == nullptr)
    {
        node = std::make_shared<Node>();
        node->Id = next_++;
        node->Key = key;
        byId_.emplace(node->Id, node);
    }
    const bool there =
        !node->Places.empty() && node->Places.back().Directory->Id == parent && node->Places.back().Name == name;
    if (!there)
    {
        Put(node, parent, name);
    }
    ++node->Lookups;
    return node->Id;
}

bool NodeTable::Forget(NodeId id, std::uint64_t lookups)
{
    std::unique_lock lock(lock_);
    const std::shared_ptr<Node> node = Find(id);
    if (id == Root || node == nullptr)
    {
        return false;
    }
    node->Lookups -= std::min(node->Lookups, lookups);
    if (node->Lookups != 0)
    {
        return false;
    }
    byId_.erase(id);
    byInode_.erase(node->Key);
    for (const Place& place : node->Places)
    {
        byName_.erase({place.Directory->Id, place.Name});
    }
    return true;
}

bool NodeTable::AppendPath(const Node& node, hosted::WideString* path) const
{
    if (node.Id == Root)
    {
        *path = volume_;
        return true;
    }
    if (node.Places.empty() || !AppendPath(*node.Places.back().Directory, path))
    {
        return false;
    }
    *path += L'\\';
    *path += node.Places.back().Name;
    return true;
}

bool NodeTable::Is(NodeId id, const struct stat& info) const
{
    std::shared_lock lock(lock_);
    const std::shared_ptr<Node> node = Find(id);
    return id == Root || (node != nullptr && node->Key == Inode{info.st_dev, info.st_ino});
}

hosted::WideString NodeTable::PathOf(NodeId id) const
{
    std::shared_lock lock(lock_);
    hosted::WideString path;
    const std::shared_ptr<Node> node = Find(id);
    if (node == nullptr || !AppendPath(*node, &path))
    {
        return {};
    }
    if (id == Root)
    {
        // The root directory; without the backslash it would be the volume.
        path += L'\\';
    }
    return path;
}

hosted::WideString NodeTable::PathOf(NodeId parent, hosted::WideView name) const
{
    std::shared_lock lock(lock_);
    hosted::WideString path;
    const std::shared_ptr<Node> node = Find(parent);
    if (node == nullptr || !AppendPath(*node, &path))
    {
        return {};
    }
    path += L'\\';
    path += name;
    return path;
}

NodeId NodeTable::Removed(NodeId parent, hosted::WideView name)
{
    std::unique_lock lock(lock_);
    return IfNameless(TakeAway(parent, name));
}

NodeId NodeTable::Moved(NodeId parent, hosted::WideView name, NodeId newParent, hosted::WideView newName)
{
    std::unique_lock lock(lock_);
    const std::shared_ptr<Node> moved = TakeAway(parent, name);
    const std::shared_ptr<Node> replaced = TakeAway(newParent, newName);
    if (moved != nullptr)
    {
        Put(moved, newParent, newName);
    }
    return IfNameless(replaced);
}

void NodeTable::Exchanged(NodeId parent, hosted::WideView name, NodeId newParent, hosted::WideView newName)
{
    std::unique_lock lock(lock_);
    const std::shared_ptr<Node> first = TakeAway(parent, name);
    const std::shared_ptr<Node> second = TakeAway(newParent, newName);
    if (first != nullptr)
    {
        Put(first, newParent, newName);
    }
    if (second != nullptr)
    {
        Put(second, parent, name);
    }
}

size_t NodeTable::Count() const
{
    std::shared_lock lock(lock_);
    return byId_.size();
}
}
