#include "hosted/fs/linux_files.h"

#include <atomic>
#include <cerrno>
#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <utility>

namespace hosted
{
NTSTATUS StatusFromErrno(int error)
{
    switch (error)
    {
    case ENOENT:
        return STATUS_OBJECT_NAME_NOT_FOUND;
    case EEXIST:
        return STATUS_OBJECT_NAME_COLLISION;
    case ENOTEMPTY:
        return STATUS_DIRECTORY_NOT_EMPTY;
    case ENAMETOOLONG:
    case EILSEQ:
        return STATUS_OBJECT_NAME_INVALID;
    case ENOTDIR:
        return STATUS_NOT_A_DIRECTORY;
    case EISDIR:
        return STATUS_FILE_IS_A_DIRECTORY;
    case ELOOP:
        return STATUS_STOPPED_ON_SYMLINK;
    case EXDEV:
        return STATUS_NOT_SAME_DEVICE;
    case EMLINK:
        return STATUS_TOO_MANY_LINKS;
    case EINVAL:
        return STATUS_INVALID_PARAMETER;
    case EBUSY:
    case ETXTBSY:
        return STATUS_SHARING_VIOLATION;
    case EOPNOTSUPP:
        return STATUS_NOT_SUPPORTED;
    case EACCES:
    case EPERM:
    case EROFS:
        return STATUS_ACCESS_DENIED;
    case ENOSPC:
    case EDQUOT:
    case EFBIG:
        return STATUS_DISK_FULL;
    case EMFILE:
    case ENFILE:
    case ENOMEM:
        return STATUS_INSUFFICIENT_RESOURCES;
    default:
        return STATUS_UNEXPECTED_IO_ERROR;
    }
}

namespace
{
// 1970 counted from 1601, and the units of both clocks.
constexpr LONGLONG UnixEpoch = 116444736000000000;
constexpr LONGLONG UnitsPerSecond = 10000000;
constexpr LONGLONG NanosecondsPerUnit = 100;

std::atomic<void (*)(const LinuxChange&)> changeWatcher = nullptr;

void Announce(const LinuxChange& change)
{
    if (auto* watcher = changeWatcher.load(std::memory_order_acquire))
    {
        watcher(change);
    }
}
}

LONGLONG SystemTimeOf(const timespec& time)
{
    return UnixEpoch + static_cast<LONGLONG>(time.tv_sec) * UnitsPerSecond + time.tv_nsec / NanosecondsPerUnit;
}

timespec LinuxTimeOf(LONGLONG systemTime)
{
    LONGLONG seconds = (systemTime - UnixEpoch) / UnitsPerSecond;
    LONGLONG rest = (systemTime - UnixEpoch) % UnitsPerSecond;
    if (rest < 0)
    {
        rest += UnitsPerSecond;
        --seconds;
    }
    return {static_cast<time_t>(seconds), static_cast<long>(rest * NanosecondsPerUnit)};
}

Descriptor OpenBelow(int directory, const std::string& path, int flags, LookupRule rule)
{
    open_how how = {};
    how.flags = static_cast<unsigned>(flags | O_CLOEXEC | O_NOFOLLOW);
    how.resolve = rule == LookupRule::Strict ? RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS | RESOLVE_NO_XDEV
                                             : RESOLVE_IN_ROOT | RESOLVE_NO_MAGICLINKS;
    const char* name = path.empty() ? "." : path.c_str();
    for (;;)
    {
        const long opened = syscall(SYS_openat2, directory, name, &how, sizeof(how));
        // A rename elsewhere may make the host give up once.
        if (opened >= 0 || (errno != EAGAIN && errno != EINTR))
        {
            return Descriptor(static_cast<int>(opened));
        }
    }
}

std::string DescriptorPath(int descriptor)
{
    return "/proc/self/fd/" + std::to_string(descriptor);
}

Descriptor Reopen(int descriptor, int flags)
{
    return Descriptor(open(DescriptorPath(descriptor).c_str(), flags | O_CLOEXEC));
}

void SetLinuxChangeWatcher(void (*watcher)(const LinuxChange&))
{
    changeWatcher.store(watcher, std::memory_order_release);
}

int LinuxWrite(int file, const void* data, size_t length, LONGLONG offset, size_t* written)
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

int LinuxTruncate(int file, LONGLONG size)
{
    Announce({file, nullptr, 0, size});
    return ftruncate(file, size) == 0 ? 0 : errno;
}

int LinuxRemove(int directory, const std::string& name)
{
    Announce({directory, nullptr, 0, 0});
    return unlinkat(directory, name.c_str(), 0) == 0 ? 0 : errno;
}

Descriptor LinuxCreate(int directory, const std::string& name)
{
    Announce({directory, nullptr, 0, 0});
    return Descriptor(openat(directory, name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
}
}
