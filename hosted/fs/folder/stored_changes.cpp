#include "hosted/fs/folder/stored_changes.h"

#include <atomic>
#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

namespace hosted
{
namespace
{
std::atomic<void (*)(const StoredChange&)> changeWatcher = nullptr;

void Announce(const StoredChange& change)
{
    if (auto* watcher = changeWatcher.load(std::memory_order_acquire))
    {
        watcher(change);
    }
}
}

void SetStoredChangeWatcher(void (*watcher)(const StoredChange&))
{
    changeWatcher.store(watcher, std::memory_order_release);
}

int WriteStored(int file, const void* data, size_t length, LONGLONG offset, size_t* written)
{
    *written = 0;
    while (*written < length)
    {
        const char* from = static_cast<const char*>(data) + *written;
        Announce({file, from, length - *written, offset + static_cast<LONGLONG>(*written)});
        const ssize_t moved = pwrite(file, from, length - *written, offset + static_cast<LONGLONG>(*written));
        if (moved < 0 && errno != EINTR)
        {
            return errno;
        }
        *written += moved > 0 ? static_cast<size_t>(moved) : 0;
    }
    return 0;
}

int TruncateStored(int file, LONGLONG size)
{
    Announce({file, nullptr, 0, size});
    return ftruncate(file, size) == 0 ? 0 : errno;
}

int RemoveStored(int directory, const std::string& name)
{
    Announce({directory, nullptr, 0, 0});
    return unlinkat(directory, name.c_str(), 0) == 0 ? 0 : errno;
}

Descriptor CreateStored(int directory, const std::string& name)
{
    Announce({directory, nullptr, 0, 0});
    return Descriptor(openat(directory, name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
}
}
