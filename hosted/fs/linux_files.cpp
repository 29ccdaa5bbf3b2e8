#include "hosted/fs/linux_files.h"

#include <cerrno>
#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/syscall.h>
#include <unistd.h>

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
        // A rename elsewhere may make Linux give up once.
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
}
