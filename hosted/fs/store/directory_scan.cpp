// Finding out, when a volume is mounted, what its folder holds.
#include "hosted/fs/store/directory_store.h"
#include "hosted/fs/names.h"

#include <algorithm>
#include <dirent.h>
#include <sys/stat.h>

namespace hosted
{
namespace
{
// Sorted, so that names and ids given to files found for the first time do not depend on the folder's order.
std::vector<std::string> EntriesOf(const std::string& path)
{
    std::vector<std::string> names;
    DIR* folder = opendir(path.c_str());
    if (folder == nullptr)
    {
        return names;
    }
    while (const dirent* entry = readdir(folder))
    {
        names.push_back(entry->d_name);
    }
    closedir(folder);
    std::sort(names.begin(), names.end());
    return names;
}

// The volume shows directories and ordinary files with names that a file may have, spelt so that they come back.
bool IsShown(const std::string& entry, const struct stat& info)
{
    if (!S_ISREG(info.st_mode) && !S_ISDIR(info.st_mode))
    {
        return false;
    }
    const WideString name = Widen(entry);
    return entry != DirectoryIndex::FileName && entry != DirectoryIndex::NewFileName && IsValidName(name) &&
           Narrow(name) == entry;
}

StoredNode FoundNode(const std::string& entry, const struct stat& info)
{
    StoredNode node;
    node.Name = Widen(entry);
    node.Directory = S_ISDIR(info.st_mode);
    node.Attributes = node.Directory ? FILE_ATTRIBUTE_DIRECTORY : FILE_ATTRIBUTE_ARCHIVE;
    node.CreationTime = node.LastWriteTime = node.ChangeTime = SystemTimeOf(info.st_mtim);
    node.LastAccessTime = SystemTimeOf(info.st_atim);
    return node;
}
}

std::vector<StoredNode> DirectoryStore::Load()
{
    std::lock_guard guard(lock_);
    std::map<Key, StoredNode> known;
    StoredNode root;
    root.Attributes = FILE_ATTRIBUTE_DIRECTORY;
    for (auto& [id, node] : index_.Records())
    {
        nextId_ = std::max(nextId_, id == RootFileId ? nextId_ : id + 1);
        if (id == RootFileId)
        {
            root = node;
        }
        else
        {
            known[{node.ParentId, Narrow(node.Name)}] = node;
        }
    }
    root.Id = root.ParentId = RootFileId;
    root.Directory = true;
    std::vector<StoredNode> nodes{root};
    items_[RootFileId].Node = root;
    ScanStreams(EntriesOf(folder_), {}, &nodes[0], &items_[RootFileId]);
    Scan(RootFileId, &known, &nodes);
    index_.Rewrite(AllNodes());
    return nodes;
}

void DirectoryStore::Scan(ULONGLONG parentId, std::map<Key, StoredNode>* known, std::vector<StoredNode>* nodes)
{
    const std::string path = PathOf(parentId);
    std::set<WideString, LessNoCase> seen;
    std::vector<ULONGLONG> directories;
    const std::vector<std::string> entries = EntriesOf(path);
    for (const std::string& entry : entries)
    {
        struct stat info;
        const std::string entryPath = path + "/" + entry;
        // Of names that differ in nothing but case only the first can be told apart.
        if (lstat(entryPath.c_str(), &info) != 0 || !IsShown(entry, info) || !seen.insert(Widen(entry)).second)
        {
            continue;
        }
        StoredNode node = FoundNode(entry, info);
        auto before = known->find({parentId, entry});
        if (before != known->end() && before->second.Directory == node.Directory && !items_.contains(before->second.Id))
        {
            node = before->second;
        }
        else
        {
            node.Id = nextId_++;
            node.ParentId = parentId;
        }
        Item& item = items_[node.Id];
        item.Node = node;
        if (!node.Directory)
        {
            node.Streams.push_back({WideString(), info.st_size});
        }
        ScanStreams(entries, entry, &node, &item);
        nodes->push_back(node);
        if (node.Directory)
        {
            directories.push_back(node.Id);
        }
    }
    for (ULONGLONG id : directories)
    {
        Scan(id, known, nodes);
    }
}

void DirectoryStore::ScanStreams(
    const std::vector<std::string>& entries, const std::string& fileName, StoredNode* node, Item* item)
{
    const std::string prefix = fileName + ":";
    for (auto each = std::lower_bound(entries.begin(), entries.end(), prefix);
        each != entries.end() && each->starts_with(prefix); ++each)
    {
        const std::string stream = each->substr(prefix.size());
        const std::string path = PathOf(node->Id, stream);
        struct stat info;
        if (!stream.empty() && stream.find(':') == std::string::npos && lstat(path.c_str(), &info) == 0 &&
            S_ISREG(info.st_mode))
        {
            node->Streams.push_back({Widen(stream), info.st_size});
            item->Streams.insert(stream);
        }
    }
}
}
