// What stat shows, and what chmod, chown, utimens and truncate change.
#include "live/mount/operations.h"
#include "live/mount/replies.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/statvfs.h>
#include <unistd.h>

namespace live
{
namespace
{
constexpr int TimeFlags = FUSE_SET_ATTR_ATIME | FUSE_SET_ATTR_ATIME_NOW | FUSE_SET_ATTR_MTIME | FUSE_SET_ATTR_MTIME_NOW;

ACCESS_MASK AccessToSet(int which)
{
    ACCESS_MASK access = FILE_READ_ATTRIBUTES;
    access |= which & FUSE_SET_ATTR_SIZE ? FILE_WRITE_DATA : 0;
    access |= which & FUSE_SET_ATTR_MODE ? WRITE_DAC : 0;
    access |= which & (FUSE_SET_ATTR_UID | FUSE_SET_ATTR_GID) ? WRITE_OWNER : 0;
    access |= which & TimeFlags ? FILE_WRITE_ATTRIBUTES : 0;
    return access;
}

timespec Time(int which, int set, int now, const timespec& value)
{
    if ((which & now) != 0)
    {
        return {0, UTIME_NOW};
    }
    return (which & set) != 0 ? value : timespec{0, UTIME_OMIT};
}

int Owner(PFILE_OBJECT file, const struct stat& wanted, int which)
{
    const uid_t owner = which & FUSE_SET_ATTR_UID ? wanted.st_uid : static_cast<uid_t>(-1);
    const gid_t group = which & FUSE_SET_ATTR_GID ? wanted.st_gid : static_cast<gid_t>(-1);
    return fchownat(hosted::FolderDescriptor(file), "", owner, group, AT_EMPTY_PATH) == 0 ? 0 : errno;
}

// 0 or the errno value.
int Change(fuse_req_t request, PFILE_OBJECT file, const struct stat& wanted, int which)
{
    int error = 0;
    if ((which & FUSE_SET_ATTR_SIZE) != 0)
    {
        error = DropPowers(request, file);
        error = error != 0 ? error : ErrorFromStatus(hosted::SetEndOfFile(file, wanted.st_size));
    }
    if (error == 0 && (which & (FUSE_SET_ATTR_UID | FUSE_SET_ATTR_GID)) != 0)
    {
        error = Owner(file, wanted, which);
    }
    if (error == 0 && (which & FUSE_SET_ATTR_MODE) != 0)
    {
        error = chmod(DescriptorPath(file).c_str(), wanted.st_mode & 07777) == 0 ? 0 : errno;
    }
    if (error == 0 && (which & TimeFlags) != 0)
    {
        const timespec times[] = {Time(which, FUSE_SET_ATTR_ATIME, FUSE_SET_ATTR_ATIME_NOW, wanted.st_atim),
            Time(which, FUSE_SET_ATTR_MTIME, FUSE_SET_ATTR_MTIME_NOW, wanted.st_mtim)};
        error = hosted::FolderSetTimes(file, times);
    }
    return error;
}
}

void GetAttributes(fuse_req_t request, fuse_ino_t node, fuse_file_info* info)
{
    WithFile(request, node, LookAt, info,
        [&](PFILE_OBJECT file)
        {
            ReplyAttributes(request, file);
            return 0;
        });
}

void SetAttributes(fuse_req_t request, fuse_ino_t node, struct stat* wanted, int which, fuse_file_info* info)
{
    WithFile(request, node, {.Access = AccessToSet(which), .Options = FILE_OPEN_REPARSE_POINT}, info,
        [&](PFILE_OBJECT file)
        {
            const int error = Change(request, file, *wanted, which);
            if (error == 0)
            {
                ReplyAttributes(request, file);
            }
            return error;
        });
}

void GetVolumeStatistics(fuse_req_t request, fuse_ino_t node)
{
    WithFile(request, node, LookAt, nullptr,
        [&](PFILE_OBJECT file)
        {
            struct statvfs statistics = {};
            if (fstatvfs(hosted::FolderDescriptor(file), &statistics) != 0)
            {
                return errno;
            }
            fuse_reply_statfs(request, &statistics);
            return 0;
        });
}
}
