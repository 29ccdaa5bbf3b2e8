// The bytes of the folder, past the cache.
#include "hosted/fs/folder/folder_file_system.h"

#include <fcntl.h>
#include <unistd.h>

namespace hosted
{
namespace
{
// A path of a file as the host has it, relative to the folder; empty when there can be no such file.
std::string LinuxPathOf(WideView path)
{
    ParsedPath parsed;
    if (!NT_SUCCESS(ParsePath(path, false, &parsed)) || parsed.StreamGiven)
    {
        return {};
    }
    std::string linuxPath;
    for (const WideString& component : parsed.Components)
    {
        const std::string name = NameToLinux(component);
        if (name.empty())
        {
            return {};
        }
        linuxPath += (linuxPath.empty() ? "" : "/") + name;
    }
    return linuxPath;
}

// None but of a file with data.
Descriptor OpenData(int folder, WideView path, LookupRule rule, int flags, struct stat* info)
{
    const std::string linuxPath = LinuxPathOf(path);
    Descriptor found;
    if (!linuxPath.empty())
    {
        found = OpenBelow(folder, linuxPath, O_PATH, rule);
    }
    const bool data = found && fstat(found.Get(), info) == 0 && S_ISREG(info->st_mode);
    return data ? Reopen(found.Get(), flags) : Descriptor();
}
}

bool FolderFileSystem::ReadDisk(WideView path, std::string* bytes)
{
    struct stat info = {};
    const Descriptor file = OpenData(folder_.Get(), path, rule_, O_RDONLY, &info);
    bytes->clear();
    char step[1 << 16];
    ssize_t moved = file ? 1 : -1;
    while (file && (moved = pread(file.Get(), step, sizeof(step), static_cast<off_t>(bytes->size()))) > 0)
    {
        bytes->append(step, static_cast<size_t>(moved));
    }
    return moved == 0;
}

// The tree lock is held throughout: an open that came meanwhile would see a part.
NTSTATUS FolderFileSystem::WriteDisk(WideView path, std::string_view bytes)
{
    if (options_.ReadOnly)
    {
        return STATUS_MEDIA_WRITE_PROTECTED;
    }
    std::lock_guard guard(tree_);
    struct stat info = {};
    const Descriptor file = OpenData(folder_.Get(), path, rule_, O_RDWR, &info);
    if (!file)
    {
        return STATUS_OBJECT_NAME_NOT_FOUND;
    }
    if (FindBlock(KeyOf(info)) != nullptr)
    {
        return STATUS_SHARING_VIOLATION;
    }
    size_t written;
    int error = TruncateStored(file.Get(), 0);
    error = error == 0 ? WriteStored(file.Get(), bytes.data(), bytes.size(), 0, &written) : error;
    return error == 0 ? STATUS_SUCCESS : StatusFromErrno(error);
}
}
