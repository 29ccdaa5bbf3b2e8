#include "hosted/fs/store/directory_store.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace hosted
{
namespace
{
constexpr size_t LongestLinuxName = 255;

std::string LinuxName(WideView name, WideView stream)
{
    return stream.empty() ? Narrow(name) : Narrow(name) + ":" + Narrow(stream);
}

NTSTATUS Result(int returned)
{
    return returned == 0 ? STATUS_SUCCESS : StatusFromErrno(errno);
}

// An empty file. On failure errno tells why.
bool MakeFile(const std::string& path)
{
    return static_cast<bool>(Descriptor(open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0666)));
}

// Reads and writes go to the file by position, so they need no lock of their own.
class DirectoryStream : public StoreStream
{
public:
    DirectoryStream(DirectoryStore& store, ULONGLONG id, std::string name)
        : store_(store), id_(id), name_(std::move(name))
    {
    }

    NTSTATUS Read(LONGLONG offset, void* buffer, ULONG length) override
    {
        return Transfer(length, [&](int file, ULONG done)
            { return pread(file, static_cast<char*>(buffer) + done, length - done, offset + done); });
    }

    NTSTATUS Write(LONGLONG offset, const void* buffer, ULONG length) override
    {
        return Transfer(length, [&](int file, ULONG done)
            { return pwrite(file, static_cast<const char*>(buffer) + done, length - done, offset + done); });
    }

    NTSTATUS SetSize(LONGLONG size) override
    {
        NTSTATUS status;
        auto file = store_.Open(id_, name_, &status);
        return file == nullptr ? status : Result(ftruncate(file->Get(), size));
    }

    LONGLONG Size() override
    {
        NTSTATUS status;
        struct stat info = {};
        auto file = store_.Open(id_, name_, &status);
        return file != nullptr && fstat(file->Get(), &info) == 0 ? info.st_size : 0;
    }

private:
    template <class Step>
    NTSTATUS Transfer(ULONG length, Step&& step)
    {
        NTSTATUS status;
        auto file = store_.Open(id_, name_, &status);
        if (file == nullptr)
        {
            return status;
        }
        for (ULONG done = 0; done < length;)
        {
            const ssize_t moved = step(file->Get(), done);
            if (moved < 0 && errno != EINTR)
            {
                return StatusFromErrno(errno);
            }
            if (moved == 0)
            {
                // Someone made the file shorter behind the volume's back.
                return STATUS_UNEXPECTED_IO_ERROR;
            }
            done += moved > 0 ? static_cast<ULONG>(moved) : 0;
        }
        return STATUS_SUCCESS;
    }

    DirectoryStore& store_;
    const ULONGLONG id_;
    const std::string name_;
};
}

DirectoryStore::~DirectoryStore()
{
    index_.Rewrite(AllNodes());
}

std::vector<StoredNode> DirectoryStore::AllNodes() const
{
    std::vector<StoredNode> nodes;
    for (auto& [id, item] : items_)
    {
        nodes.push_back(item.Node);
    }
    return nodes;
}

std::string DirectoryStore::PathOf(ULONGLONG id, const std::string& stream) const
{
    const StoredNode& node = items_.at(id).Node;
    if (id == RootFileId)
    {
        // A stream of the root has no name to stand next to.
        return stream.empty() ? folder_ : folder_ + "/:" + stream;
    }
    return PathOf(node.ParentId) + "/" + Narrow(node.Name) + (stream.empty() ? "" : ":" + stream);
}

bool DirectoryStore::CanHold(WideView name, WideView stream)
{
    const std::string linuxName = LinuxName(name, stream);
    return linuxName.size() <= LongestLinuxName && linuxName != DirectoryIndex::FileName &&
           linuxName != DirectoryIndex::NewFileName;
}

NTSTATUS DirectoryStore::Create(const StoredNode& node)
{
    std::lock_guard guard(lock_);
    items_[node.Id] = Item{node, {}};
    const std::string path = PathOf(node.Id);
    if (node.Directory ? mkdir(path.c_str(), 0777) != 0 : !MakeFile(path))
    {
        const NTSTATUS status = StatusFromErrno(errno);
        items_.erase(node.Id);
        return status;
    }
    index_.Put(node);
    return STATUS_SUCCESS;
}

NTSTATUS DirectoryStore::Save(const StoredNode& node)
{
    std::lock_guard guard(lock_);
    items_.at(node.Id).Node = node;
    index_.Put(node);
    return STATUS_SUCCESS;
}

NTSTATUS DirectoryStore::Rename(const StoredNode& node)
{
    std::lock_guard guard(lock_);
    Item& item = items_.at(node.Id);
    const StoredNode before = item.Node;
    std::vector<std::pair<std::string, std::string>> moves{{PathOf(node.Id), {}}};
    for (const std::string& stream : item.Streams)
    {
        moves.push_back({PathOf(node.Id, stream), stream});
    }
    item.Node = node;
    for (size_t done = 0; done < moves.size(); ++done)
    {
        if (rename(moves[done].first.c_str(), PathOf(node.Id, moves[done].second).c_str()) != 0)
        {
            const NTSTATUS status = StatusFromErrno(errno);
            while (done-- > 0)
            {
                rename(PathOf(node.Id, moves[done].second).c_str(), moves[done].first.c_str());
            }
            item.Node = before;
            return status;
        }
    }
    index_.Put(node);
    return STATUS_SUCCESS;
}

NTSTATUS DirectoryStore::Remove(ULONGLONG id)
{
    std::lock_guard guard(lock_);
    Item& item = items_.at(id);
    const std::string path = PathOf(id);
    const NTSTATUS status = Result(item.Node.Directory ? rmdir(path.c_str()) : unlink(path.c_str()));
    if (!NT_SUCCESS(status))
    {
        return status;
    }
    for (const std::string& stream : item.Streams)
    {
        unlink(PathOf(id, stream).c_str());
        files_.Forget({id, stream});
    }
    files_.Forget({id, {}});
    items_.erase(id);
    index_.Remove(id);
    return STATUS_SUCCESS;
}

NTSTATUS DirectoryStore::CreateStream(ULONGLONG id, WideView stream)
{
    std::lock_guard guard(lock_);
    const std::string name = Narrow(stream);
    if (!MakeFile(PathOf(id, name)))
    {
        return StatusFromErrno(errno);
    }
    items_.at(id).Streams.insert(name);
    return STATUS_SUCCESS;
}

NTSTATUS DirectoryStore::RemoveStream(ULONGLONG id, WideView stream)
{
    std::lock_guard guard(lock_);
    const std::string name = Narrow(stream);
    const NTSTATUS status = Result(unlink(PathOf(id, name).c_str()));
    if (NT_SUCCESS(status))
    {
        files_.Forget({id, name});
        items_.at(id).Streams.erase(name);
    }
    return status;
}

std::shared_ptr<StoreStream> DirectoryStore::OpenStream(ULONGLONG id, WideView stream)
{
    return std::make_shared<DirectoryStream>(*this, id, Narrow(stream));
}

std::shared_ptr<const Descriptor> DirectoryStore::Open(ULONGLONG id, const std::string& stream, NTSTATUS* status)
{
    std::lock_guard guard(lock_);
    *status = STATUS_SUCCESS;
    if (auto open = files_.Find({id, stream}))
    {
        return open;
    }
    if (!items_.contains(id))
    {
        *status = STATUS_FILE_DELETED;
        return nullptr;
    }
    auto opened = files_.Open({id, stream}, PathOf(id, stream));
    *status = opened == nullptr ? StatusFromErrno(errno) : STATUS_SUCCESS;
    return opened;
}

std::unique_ptr<Store> CreateDirectoryStore(const std::string& folder)
{
    return std::make_unique<DirectoryStore>(folder);
}
}
