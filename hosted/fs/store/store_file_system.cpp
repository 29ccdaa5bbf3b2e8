// Mounting and dismounting.
#include "hosted/fs/store/store_file_system.h"

namespace hosted
{
StoreFileSystem::StoreFileSystem(Volume& volume, std::unique_ptr<Store> store, StoreOptions options)
    : StreamFileSystem(volume, options.StrictEndOfFile), store_(std::move(store)), options_(options),
      volumeNode_(std::make_shared<Node>())
{
    volumeNode_->Streams[WideString()] = std::make_shared<Stream>();
    Load();
}

StoreFileSystem::~StoreFileSystem()
{
    RequireNothingActive();
    std::lock_guard guard(tree_);
    for (auto& [id, node] : nodesById_)
    {
        SaveIfChanged(node);
    }
}

std::unique_ptr<FileSystem> CreateStoreFileSystem(Volume& volume, std::unique_ptr<Store> store, StoreOptions options)
{
    return std::make_unique<StoreFileSystem>(volume, std::move(store), options);
}
}
