// A store in an ordinary folder of Linux.
#pragma once

#include "hosted/fs/store/directory_index.h"
#include "hosted/fs/store/open_files.h"
#include "hosted/fs/store/store_volume.h"

#include <map>
#include <mutex>
#include <set>

namespace hosted
{
// Bytes are moved without the lock.
class DirectoryStore : public Store
{
public:
    explicit DirectoryStore(const std::string& folder) : folder_(folder), index_(folder) {}
    ~DirectoryStore() override;

    std::vector<StoredNode> Load() override;
    bool CanHold(WideView name, WideView stream) override;
    NTSTATUS Create(const StoredNode& node) override;
    NTSTATUS Save(const StoredNode& node) override;
    NTSTATUS Rename(const StoredNode& node) override;
    NTSTATUS Remove(ULONGLONG id) override;
    NTSTATUS CreateStream(ULONGLONG id, WideView stream) override;
    NTSTATUS RemoveStream(ULONGLONG id, WideView stream) override;
    std::shared_ptr<StoreStream> OpenStream(ULONGLONG id, WideView stream) override;

    // The stream's file, opened when it is not open; null with the failure in *status.
    std::shared_ptr<const Descriptor> Open(ULONGLONG id, const std::string& stream, NTSTATUS* status);

private:
    struct Item
    {
        StoredNode Node;
        std::set<std::string> Streams; // the named ones
    };
    using Key = OpenFiles::Key;

    std::string PathOf(ULONGLONG id, const std::string& stream = {}) const;
    void Scan(ULONGLONG parentId, std::map<Key, StoredNode>* known, std::vector<StoredNode>* nodes);
    void ScanStreams(
        const std::vector<std::string>& entries, const std::string& fileName, StoredNode* node, Item* item);
    std::vector<StoredNode> AllNodes() const;

    const std::string folder_;
    std::mutex lock_;
    DirectoryIndex index_;
    std::map<ULONGLONG, Item> items_;
    ULONGLONG nextId_ = FirstFileId;
    OpenFiles files_;
};
}
