// The bytes of the store, past the cache.
#include "hosted/fs/store/store_file_system.h"

#include "hosted/ke/system_time.h"

#include <algorithm>

namespace hosted
{
namespace
{
// What goes to or from the store at once.
constexpr size_t DiskStep = 1 << 20;
}

Stream* StoreFileSystem::FindStream(WideView path, Node** node) const
{
    ParsedPath parsed;
    if (!NT_SUCCESS(ParsePath(path, false, &parsed)) ||
        !NT_SUCCESS(Walk(root_.get(), parsed.Components, parsed.Components.size(), node)))
    {
        return nullptr;
    }
    const auto stream = (*node)->Streams.find(parsed.Stream);
    const bool none = stream == (*node)->Streams.end() || ((*node)->Info.Directory && parsed.Stream.empty());
    return none ? nullptr : stream->second.get();
}

bool StoreFileSystem::ReadDisk(WideView path, std::string* bytes)
{
    std::shared_ptr<StoreStream> data;
    {
        std::lock_guard guard(tree_);
        Node* node = nullptr;
        const Stream* stream = FindStream(path, &node);
        if (stream == nullptr)
        {
            return false;
        }
        data = store_->OpenStream(node->Info.Id, stream->Name);
    }
    bytes->resize(static_cast<size_t>(data->Size()));
    for (size_t offset = 0; offset < bytes->size(); offset += DiskStep)
    {
        const auto length = static_cast<ULONG>(std::min(DiskStep, bytes->size() - offset));
        if (!NT_SUCCESS(data->Read(static_cast<LONGLONG>(offset), bytes->data() + offset, length)))
        {
            return false;
        }
    }
    return true;
}

// The tree lock is held throughout: an open that came meanwhile would see a part.
NTSTATUS StoreFileSystem::WriteDisk(WideView path, std::string_view bytes)
{
    std::lock_guard guard(tree_);
    Node* node = nullptr;
    Stream* stream = FindStream(path, &node);
    if (stream == nullptr)
    {
        return STATUS_OBJECT_NAME_NOT_FOUND;
    }
    if (stream->Active)
    {
        return STATUS_SHARING_VIOLATION;
    }
    const auto data = store_->OpenStream(node->Info.Id, stream->Name);
    NTSTATUS status = data->SetSize(static_cast<LONGLONG>(bytes.size()));
    for (size_t offset = 0; NT_SUCCESS(status) && offset < bytes.size(); offset += DiskStep)
    {
        const auto length = static_cast<ULONG>(std::min(DiskStep, bytes.size() - offset));
        status = data->Write(static_cast<LONGLONG>(offset), bytes.data() + offset, length);
    }
    stream->Size = data->Size();
    node->Info.LastWriteTime = node->Info.ChangeTime = SystemTime();
    node->Changed = true;
    SaveIfChanged(node);
    return status;
}
}
