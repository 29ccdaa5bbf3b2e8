// Extended attributes, which live on the store's files.
#include "live/mount/operations.h"
#include "live/mount/replies.h"

#include <cerrno>
#include <cstring>
#include <string_view>
#include <sys/xattr.h>
#include <vector>

namespace live
{
namespace
{
// What the store keeps for itself.
constexpr std::string_view Reserved = "user.tarnveil.";

// 0 or the errno value. Access control lists would be kept but not enforced, so they are not taken at all.
int CheckName(fuse_req_t request, std::string_view name)
{
    if (name.starts_with(Reserved) || name.starts_with("system."))
    {
        return EOPNOTSUPP;
    }
    return name.starts_with("trusted.") && fuse_req_ctx(request)->uid != 0 ? EPERM : 0;
}

// use(path of the open file), as WithFile.
template <class Use>
void WithAttributes(fuse_req_t request, fuse_ino_t node, ACCESS_MASK access, Use&& use)
{
    WithFile(request, node, {.Access = access | FILE_READ_ATTRIBUTES, .Options = FILE_OPEN_REPARSE_POINT}, nullptr,
        [&](PFILE_OBJECT file) { return use(DescriptorPath(file)); });
}

std::vector<char> WithoutReserved(const std::vector<char>& names)
{
    std::vector<char> kept;
    for (size_t at = 0; at < names.size();)
    {
        const std::string_view name(names.data() + at);
        if (!name.starts_with(Reserved) && !name.starts_with("system."))
        {
            kept.insert(kept.end(), name.data(), name.data() + name.size() + 1);
        }
        at += name.size() + 1;
    }
    return kept;
}

// As much as there is, whatever the program has room for.
int ReadAll(std::vector<char>* value, auto&& read)
{
    ssize_t size = read(nullptr, 0);
    while (size > 0)
    {
        value->resize(static_cast<size_t>(size));
        size = read(value->data(), value->size());
        if (size >= 0 || errno != ERANGE)
        {
            break;
        }
        size = read(nullptr, 0);
    }
    if (size < 0)
    {
        return errno;
    }
    value->resize(static_cast<size_t>(size));
    return 0;
}

int Answer(fuse_req_t request, const std::vector<char>& value, size_t room)
{
    if (room == 0)
    {
        fuse_reply_xattr(request, value.size());
        return 0;
    }
    if (value.size() > room)
    {
        return ERANGE;
    }
    fuse_reply_buf(request, value.data(), value.size());
    return 0;
}
}

void SetExtended(fuse_req_t request, fuse_ino_t node, const char* name, const char* value, size_t size, int flags)
{
    if (const int error = CheckName(request, name))
    {
        fuse_reply_err(request, error);
        return;
    }
    WithAttributes(request, node, WriteExtendedAttributes,
        [&](const std::string& path)
        {
            if (setxattr(path.c_str(), name, value, size, flags) != 0)
            {
                return errno;
            }
            fuse_reply_err(request, 0);
            return 0;
        });
}

void GetExtended(fuse_req_t request, fuse_ino_t node, const char* name, size_t size)
{
    if (const int error = CheckName(request, name))
    {
        fuse_reply_err(request, error == EOPNOTSUPP ? ENODATA : error);
        return;
    }
    WithAttributes(request, node, ReadExtendedAttributes,
        [&](const std::string& path)
        {
            std::vector<char> value;
            const int failure =
                ReadAll(&value, [&](char* to, size_t room) { return getxattr(path.c_str(), name, to, room); });
            return failure != 0 ? failure : Answer(request, value, size);
        });
}

void ListExtended(fuse_req_t request, fuse_ino_t node, size_t size)
{
    WithAttributes(request, node, ReadExtendedAttributes,
        [&](const std::string& path)
        {
            std::vector<char> names;
            const int error = ReadAll(&names, [&](char* to, size_t room) { return listxattr(path.c_str(), to, room); });
            return error != 0 ? error : Answer(request, WithoutReserved(names), size);
        });
}

void RemoveExtended(fuse_req_t request, fuse_ino_t node, const char* name)
{
    if (const int error = CheckName(request, name))
    {
        fuse_reply_err(request, error);
        return;
    }
    WithAttributes(request, node, WriteExtendedAttributes,
        [&](const std::string& path)
        {
            if (removexattr(path.c_str(), name) != 0)
            {
                return errno;
            }
            fuse_reply_err(request, 0);
            return 0;
        });
}
}
