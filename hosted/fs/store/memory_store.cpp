#include "hosted/fs/store/store_volume.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <shared_mutex>
#include <unordered_map>

namespace hosted
{
namespace
{
constexpr LONGLONG BlockBytes = 256 << 10;
constexpr LONGLONG LargestStream = 16ll << 40;

// Bytes in blocks that exist once they were written to; a block is zero past the stream's size.
class MemoryStream : public StoreStream
{
public:
    NTSTATUS Read(LONGLONG offset, void* buffer, ULONG length) override
    {
        std::shared_lock guard(lock_);
        ForBlocks(offset, length,
            [&](LONGLONG index, ULONG begin, ULONG count, ULONG done)
            {
                auto found = blocks_.find(index);
                UCHAR* to = static_cast<UCHAR*>(buffer) + done;
                if (found == blocks_.end())
                {
                    std::memset(to, 0, count);
                }
                else
                {
                    std::memcpy(to, found->second.get() + begin, count);
                }
            });
        return STATUS_SUCCESS;
    }

    NTSTATUS Write(LONGLONG offset, const void* buffer, ULONG length) override
    {
        std::unique_lock guard(lock_);
        ForBlocks(offset, length,
            [&](LONGLONG index, ULONG begin, ULONG count, ULONG done)
            {
                Memory& block = blocks_[index];
                if (block == nullptr)
                {
                    // Zeroed by the system, page by page, as it is touched.
                    block.reset(static_cast<UCHAR*>(std::calloc(1, BlockBytes)));
                }
                std::memcpy(block.get() + begin, static_cast<const UCHAR*>(buffer) + done, count);
            });
        return STATUS_SUCCESS;
    }

    NTSTATUS SetSize(LONGLONG size) override
    {
        std::unique_lock guard(lock_);
        if (size > LargestStream)
        {
            return STATUS_DISK_FULL;
        }
        if (size < size_)
        {
            std::erase_if(blocks_, [&](auto& each) { return each.first * BlockBytes >= size; });
            auto last = blocks_.find(size / BlockBytes);
            if (last != blocks_.end())
            {
                const LONGLONG kept = size % BlockBytes;
                std::memset(last->second.get() + kept, 0,
                    static_cast<size_t>(std::min(BlockBytes, size_ - last->first * BlockBytes) - kept));
            }
        }
        size_ = size;
        return STATUS_SUCCESS;
    }

    LONGLONG Size() override
    {
        std::shared_lock guard(lock_);
        return size_;
    }

private:
    struct Free
    {
        void operator()(UCHAR* memory) const { std::free(memory); }
    };
    using Memory = std::unique_ptr<UCHAR, Free>;

    template <class Use>
    static void ForBlocks(LONGLONG offset, ULONG length, Use&& use)
    {
        for (ULONG done = 0; done < length;)
        {
            const LONGLONG at = offset + done;
            const ULONG begin = static_cast<ULONG>(at % BlockBytes);
            const ULONG count = std::min<ULONG>(length - done, static_cast<ULONG>(BlockBytes) - begin);
            use(at / BlockBytes, begin, count, done);
            done += count;
        }
    }

    std::shared_mutex lock_;
    LONGLONG size_ = 0;
    std::unordered_map<LONGLONG, Memory> blocks_;
};
}

class MemoryDisk
{
public:
    struct Item
    {
        StoredNode Node;
        std::map<WideString, std::shared_ptr<MemoryStream>> Streams;
    };
    std::mutex Lock;
    std::map<ULONGLONG, Item> Items;
};

namespace
{
class MemoryStore : public Store
{
public:
    explicit MemoryStore(std::shared_ptr<MemoryDisk> disk) : disk_(std::move(disk))
    {
        std::lock_guard guard(disk_->Lock);
        MemoryDisk::Item& root = disk_->Items[RootFileId];
        root.Node.Id = root.Node.ParentId = RootFileId;
        root.Node.Directory = true;
        root.Node.Attributes = FILE_ATTRIBUTE_DIRECTORY;
    }

    std::vector<StoredNode> Load() override
    {
        std::lock_guard guard(disk_->Lock);
        std::multimap<ULONGLONG, const MemoryDisk::Item*> byParent;
        for (auto& [id, item] : disk_->Items)
        {
            if (id != RootFileId)
            {
                byParent.emplace(item.Node.ParentId, &item);
            }
        }
        std::vector<StoredNode> nodes{disk_->Items.at(RootFileId).Node};
        FillStreams(disk_->Items.at(RootFileId), &nodes[0]);
        for (size_t next = 0; next < nodes.size(); ++next)
        {
            auto [begin, end] = byParent.equal_range(nodes[next].Id);
            for (; begin != end; ++begin)
            {
                nodes.push_back(begin->second->Node);
                FillStreams(*begin->second, &nodes.back());
            }
        }
        return nodes;
    }

    bool CanHold(WideView, WideView) override { return true; }

    NTSTATUS Create(const StoredNode& node) override
    {
        std::lock_guard guard(disk_->Lock);
        MemoryDisk::Item& item = disk_->Items[node.Id];
        item.Node = node;
        if (!node.Directory)
        {
            item.Streams[WideString()] = std::make_shared<MemoryStream>();
        }
        return STATUS_SUCCESS;
    }

    NTSTATUS Save(const StoredNode& node) override
    {
        std::lock_guard guard(disk_->Lock);
        disk_->Items.at(node.Id).Node = node;
        return STATUS_SUCCESS;
    }

    NTSTATUS Rename(const StoredNode& node) override { return Save(node); }

    NTSTATUS Remove(ULONGLONG id) override
    {
        std::lock_guard guard(disk_->Lock);
        disk_->Items.erase(id);
        return STATUS_SUCCESS;
    }

    NTSTATUS CreateStream(ULONGLONG id, WideView stream) override
    {
        std::lock_guard guard(disk_->Lock);
        disk_->Items.at(id).Streams[WideString(stream)] = std::make_shared<MemoryStream>();
        return STATUS_SUCCESS;
    }

    NTSTATUS RemoveStream(ULONGLONG id, WideView stream) override
    {
        std::lock_guard guard(disk_->Lock);
        disk_->Items.at(id).Streams.erase(WideString(stream));
        return STATUS_SUCCESS;
    }

    std::shared_ptr<StoreStream> OpenStream(ULONGLONG id, WideView stream) override
    {
        std::lock_guard guard(disk_->Lock);
        return disk_->Items.at(id).Streams.at(WideString(stream));
    }

private:
    static void FillStreams(const MemoryDisk::Item& item, StoredNode* node)
    {
        node->Streams.clear();
        for (auto& [name, stream] : item.Streams)
        {
            node->Streams.push_back({name, stream->Size()});
        }
    }

    std::shared_ptr<MemoryDisk> disk_;
};
}

std::shared_ptr<MemoryDisk> CreateMemoryDisk()
{
    return std::make_shared<MemoryDisk>();
}

std::unique_ptr<Store> CreateMemoryStore(std::shared_ptr<MemoryDisk> disk)
{
    return std::make_unique<MemoryStore>(std::move(disk));
}
}
