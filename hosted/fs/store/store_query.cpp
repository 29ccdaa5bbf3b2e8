// What the tree knows of files and directories.
#include "hosted/fs/store/store_file_system.h"

namespace hosted
{
namespace
{
FileFacts FactsOf(const Node& node)
{
    const StoredNode& info = node.Info;
    FileFacts facts;
    facts.CreationTime = info.CreationTime;
    facts.LastAccessTime = info.LastAccessTime;
    facts.LastWriteTime = info.LastWriteTime;
    facts.ChangeTime = info.ChangeTime;
    facts.Attributes = info.Attributes;
    facts.Id = info.Id;
    facts.Directory = info.Directory;
    return facts;
}

LONGLONG DataSize(const Node& node)
{
    auto data = node.Streams.find(WideString());
    return node.Info.Directory || data == node.Streams.end() ? 0 : data->second->CurrentSize();
}
}

NTSTATUS StoreFileSystem::Describe(PFILE_OBJECT file, FileFacts* facts, WideString* path)
{
    const StoreBlock& block = *StoreBlockOf(file);
    const Node& node = *block.Owner;
    const WideString& stream = block.Record->Name;
    *facts = FactsOf(node);
    facts->Size = block.Size();
    facts->DeletePending = node.DeletePending || block.Record->DeletePending || node.Deleted;
    facts->Directory = node.Info.Directory && stream.empty();
    *path = PathOf(&node) + (stream.empty() ? WideString() : L":" + stream);
    return STATUS_SUCCESS;
}

std::vector<StoredStream> StoreFileSystem::StreamsOf(const ControlBlock& block)
{
    const Node& node = *static_cast<const StoreBlock&>(block).Owner;
    std::vector<StoredStream> streams;
    for (auto& [name, stream] : node.Streams)
    {
        if (!node.Info.Directory || !name.empty())
        {
            streams.push_back({stream->Name, stream->CurrentSize()});
        }
    }
    return streams;
}

NTSTATUS StoreFileSystem::PrepareScan(OpenContext& open, bool)
{
    const Node& directory = *static_cast<StoreBlock&>(*open.Block).Owner;
    return directory.Deleted || directory.DeletePending ? STATUS_DELETE_PENDING : STATUS_SUCCESS;
}

bool StoreFileSystem::NextEntry(OpenContext& open, ListedFile* listed)
{
    const Node& directory = *static_cast<StoreBlock&>(*open.Block).Owner;
    DirectoryScan& scan = open.Scan;
    // The root has no parent, and so neither of the two. They have the times of the directories they stand for.
    for (; scan.Dots < 2; ++scan.Dots)
    {
        if (directory.Parent != nullptr)
        {
            const bool self = scan.Dots == 0;
            *listed = {self ? L"." : L"..", {}, FactsOf(self ? directory : *directory.Parent)};
            ++scan.Dots;
            return true;
        }
    }
    auto next = scan.Last.empty() ? directory.Children.begin() : directory.Children.upper_bound(scan.Last);
    if (next == directory.Children.end())
    {
        return false;
    }
    const Node& node = *next->second;
    *listed = {node.Info.Name, node.Info.ShortName, FactsOf(node)};
    listed->Facts.Size = DataSize(node);
    scan.Last = node.Info.Name;
    return true;
}
}
