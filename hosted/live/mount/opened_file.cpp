#include "hosted/live/mount/opened_file.h"

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

OpenedFile::OpenedFile(const host::WideString& path, const OpenWish& wish)
{
    if (path.empty())
    {
        return;
    }
    host::OpenRequest request;
    request.Path = path;
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
        status_ = host::OpenFile(request, &file_);
        if (status_ != STATUS_SHARING_VIOLATION)
        {
            return;
        }
        // Only the driver itself opens directories without sharing all, and for no longer than a look takes.
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

OpenedFile::OpenedFile(OpenedFile&& other) noexcept
    : file_(std::exchange(other.file_, nullptr)), status_(other.status_)
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
        host::CloseFile(std::exchange(file_, nullptr));
    }
}

OpenHandle::OpenHandle() : Opener(host::CurrentProcess())
{
    host::ReferenceObject(Opener);
}

OpenHandle::~OpenHandle()
{
    host::DereferenceObject(Opener);
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

PFILE_OBJECT HandleSet::Find(NodeId node, auto&& fits) const
{
    std::lock_guard guard(lock_);
    const auto [begin, end] = handles_.equal_range(node);
    const auto found = std::find_if(begin, end, [&](const auto& entry) { return fits(*entry.second); });
    if (found == end)
    {
        return nullptr;
    }
    host::ReferenceObject(found->second->File.Get());
    return found->second->File.Get();
}

PFILE_OBJECT HandleSet::AnyOf(NodeId node) const
{
    return Find(node, [](const OpenHandle&) { return true; });
}

PFILE_OBJECT HandleSet::OpenedBy(const host::Process* process, NodeId node) const
{
    return Find(node, [process](const OpenHandle& handle) { return handle.Opener == process; });
}

void HandleSet::Clear()
{
    decltype(handles_) closing;
    {
        std::lock_guard guard(lock_);
        closing.swap(handles_);
    }
}
}
