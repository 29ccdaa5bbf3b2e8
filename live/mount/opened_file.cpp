#include "live/mount/opened_file.h"

#include "hosted/ob/object.h"

#include <algorithm>
#include <chrono>
#include <thread>
#include <utility>

namespace live
{
namespace
{
constexpr int MostAttempts = 1000;
}

OpenedFile::OpenedFile(const hosted::WideString& path, const OpenWish& wish)
{
    if (path.empty() && wish.Root == nullptr)
    {
        return;
    }
    hosted::OpenRequest request;
    request.Path = path;
    request.Root = wish.Root;
    request.DesiredAccess = wish.Access | SYNCHRONIZE;
    request.Disposition = wish.Disposition;
    request.Options = wish.Options | FILE_SYNCHRONOUS_IO_NONALERT;
    if (wish.Creation != nullptr)
    {
        request.Ea = wish.Creation;
        request.EaLength = sizeof(*wish.Creation);
    }
    for (int attempt = 0; attempt < MostAttempts; ++attempt)
    {
        status_ = hosted::OpenFile(request, &file_);
        if (status_ != STATUS_SHARING_VIOLATION)
        {
            return;
        }
        // Only the driver itself opens directories without sharing all, and for no longer than a look takes.
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

OpenedFile::OpenedFile(OpenedFile&& other) noexcept : file_(std::exchange(other.file_, nullptr)), status_(other.status_)
{
}

OpenedFile& OpenedFile::operator=(OpenedFile&& other) noexcept
{
    std::swap(file_, other.file_);
    std::swap(status_, other.status_);
    return *this;
}

void OpenedFile::Close()
{
    if (file_ != nullptr)
    {
        hosted::CloseFile(std::exchange(file_, nullptr));
    }
}

OpenHandle::OpenHandle() : Opener(hosted::CurrentProcess())
{
    hosted::ReferenceObject(Opener);
}

OpenHandle::~OpenHandle()
{
    hosted::DereferenceObject(Opener);
}

OpenHandle* HandleSet::Add(std::unique_ptr<OpenHandle> handle)
{
    OpenHandle* added = handle.get();
    std::lock_guard guard(lock_);
    handles_.emplace(added->Node, std::move(handle));
    return added;
}

void HandleSet::Remove(OpenHandle* handle)
{
    std::unique_ptr<OpenHandle> removed;
    std::unique_lock lock(lock_);
    const auto [begin, end] = handles_.equal_range(handle->Node);
    for (auto at = begin; at != end; ++at)
    {
        if (at->second.get() == handle)
        {
            removed = std::move(at->second);
            handles_.erase(at);
            break;
        }
    }
    lock.unlock();
    // Here the files are closed, which takes its time.
}

PFILE_OBJECT HandleSet::OpenedBy(const hosted::Process* process, NodeId node) const
{
    std::lock_guard guard(lock_);
    const auto [begin, end] = handles_.equal_range(node);
    const auto found =
        std::find_if(begin, end, [process](const auto& entry) { return entry.second->Opener == process; });
    if (found == end)
    {
        return nullptr;
    }
    hosted::ReferenceObject(found->second->File.Get());
    return found->second->File.Get();
}

void HandleSet::Clear()
{
    decltype(handles_) closing;
    {
        std::lock_guard guard(lock_);
        closing.swap(handles_);
    }
}

void NamelessFiles::Keep(NodeId node, OpenedFile file)
{
    auto kept = std::make_shared<const OpenedFile>(std::move(file));
    std::lock_guard guard(lock_);
    files_[node].swap(kept);
}

OpenedFile NamelessFiles::Open(NodeId node, OpenWish wish) const
{
    std::shared_ptr<const OpenedFile> kept;
    {
        std::lock_guard guard(lock_);
        const auto found = files_.find(node);
        kept = found == files_.end() ? nullptr : found->second;
    }
    wish.Root = kept == nullptr ? nullptr : kept->Get();
    return OpenedFile({}, wish);
}

void NamelessFiles::Drop(NodeId node)
{
    decltype(files_)::node_type dropped;
    std::lock_guard guard(lock_);
    dropped = files_.extract(node);
}

void NamelessFiles::Clear()
{
    decltype(files_) closing;
    std::lock_guard guard(lock_);
    closing.swap(files_);
}
}
