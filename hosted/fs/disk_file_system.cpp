// Mounting and dismounting.
#include "hosted/fs/disk_file_system.h"

namespace host
{
DiskFileSystem::DiskFileSystem(Volume& volume, std::unique_ptr<Store> store, FileSystemOptions options)
    : StreamFileSystem(volume, options.StrictEndOfFile), store_(std::move(store)), options_(options),
      volumeNode_(std::make_shared<Node>())
{
    volumeNode_->Streams[WideString()] = std::make_shared<Stream>();
    Load();
}

DiskFileSystem::~DiskFileSystem()
{
    RequireNothingActive();
    std::lock_guard guard(tree_);
    for (auto& [id, node] : nodesById_)
    {
        SaveIfChanged(node);
    }
}

std::unique_ptr<FileSystem> CreateFileSystem(Volume& volume, std::unique_ptr<Store> store, FileSystemOptions options)
{
    return std::make_unique<DiskFileSystem>(volume, std::move(store), options);
}
}
