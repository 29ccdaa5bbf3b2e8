// A store in an ordinary folder of the host system.
#pragma once

#include "hosted/fs/store/directory_index.h"
#include "hosted/fs/linux_files.h"
#include "hosted/fs/store.h"

#include <list>
#include <map>
#include <mutex>
#include <set>

namespace hosted
{
// Keeps no more than a fixed number of files open. One lock guards names and open files; bytes are moved without it.
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

    // An open file; closed when the last user lets it go.
    struct Descriptor
    {
        int Number;
        explicit Descriptor(int number) : Number(number) {}
        ~Descriptor();
        Descriptor(const Descriptor&) = delete;
        Descriptor& operator=(const Descriptor&) = delete;
    };
    // The stream's file, opened when it is not open; null with the failure in *status.
    std::shared_ptr<Descriptor> Open(ULONGLONG id, const std::string& stream, NTSTATUS* status);

private:
    struct Item
    {
        StoredNode Node;
        std::set<std::string> Streams; // the named ones
    };
    using Key = std::pair<ULONGLONG, std::string>;

    std::string PathOf(ULONGLONG id, const std::string& stream = {}) const;
    void Scan(ULONGLONG parentId, std::map<Key, StoredNode>* known, std::vector<StoredNode>* nodes);
    void ScanStreams(
        const std::vector<std::string>& entries, const std::string& fileName, StoredNode* node, Item* item);
    void Forget(ULONGLONG id, const std::string& stream);
    std::vector<StoredNode> AllNodes() const;

    const std::string folder_;
    std::mutex lock_;
    DirectoryIndex index_;
    std::map<ULONGLONG, Item> items_;
    ULONGLONG nextId_ = FirstFileId;
    std::list<Key> recent_; // open files, the most recently used first
    std::map<Key, std::pair<std::shared_ptr<Descriptor>, std::list<Key>::iterator>> open_;
};
}
