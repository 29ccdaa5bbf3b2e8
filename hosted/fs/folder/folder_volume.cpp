// Mounting a folder, naming its files, and its bytes past the cache.
#include "hosted/fs/folder/folder_volume.h"

#include "hosted/ke/bug_check.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

namespace hosted
{
FolderFileSystem::FolderFileSystem(Volume& volume, FolderOptions options)
    : StreamFileSystem(volume, false), options_(std::move(options)),
      rule_(options_.ReadOnly ? LookupRule::FollowLinks : LookupRule::Strict),
      folder_(open(options_.Folder.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC)), journal_(folder_.Get()),
      root_(std::make_shared<FolderEntry>(nullptr, WideString()))
{
    if (!folder_)
    {
        BugCheck("FILE_SYSTEM", "the folder \"%s\" cannot be opened: %s", options_.Folder.c_str(), strerror(errno));
    }
}

FolderFileSystem::~FolderFileSystem()
{
    RequireNothingActive();
}

NTSTATUS FolderFileSystem::NormalizedName(PFILE_OBJECT fileObject, ULONG options, WideString* path)
{
    std::lock_guard guard(tree_);
    if (const FolderOpen* open = FolderOpenOf(fileObject))
    {
        if (open->Entry == nullptr)
        {
            path->clear();
            return STATUS_SUCCESS;
        }
        *path = open->Entry->Path();
        return open->Entry->Gone ? STATUS_FILE_DELETED : STATUS_SUCCESS;
    }
    const WideView name = View(fileObject->FileName);
    if (options & FILE_OPEN_BY_FILE_ID)
    {
        return STATUS_NOT_SUPPORTED;
    }
    if (fileObject->RelatedFileObject == nullptr && name.empty())
    {
        path->clear();
        return STATUS_SUCCESS;
    }
    ParsedPath parsed;
    NTSTATUS status = ParsePath(name, IsRelativeName(fileObject), &parsed);
    if (!NT_SUCCESS(status))
    {
        return status;
    }
    *path = StartOf(fileObject)->Path();
    for (const WideString& component : parsed.Components)
    {
        *path += (path->size() > 1 ? L"\\" : L"") + component;
    }
    *path += parsed.Stream.empty() ? WideString() : L":" + parsed.Stream;
    return STATUS_SUCCESS;
}

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
    int error = LinuxTruncate(file.Get(), 0);
    error = error == 0 ? LinuxWrite(file.Get(), bytes.data(), bytes.size(), 0, &written) : error;
    return error == 0 ? STATUS_SUCCESS : StatusFromErrno(error);
}

std::unique_ptr<FileSystem> CreateFolderFileSystem(Volume& volume, FolderOptions options)
{
    return std::make_unique<FolderFileSystem>(volume, std::move(options));
}

int FolderDescriptor(PFILE_OBJECT file)
{
    return FolderBlockOf(file)->Descriptor.Get();
}

int FolderStat(PFILE_OBJECT file, struct stat* info)
{
    return static_cast<FolderFileSystem&>(FolderBlockOf(file)->Files).Stat(file, info);
}

NTSTATUS FolderReserve(PFILE_OBJECT file, LONGLONG offset, LONGLONG length)
{
    FolderBlock& block = *FolderBlockOf(file);
    return static_cast<FolderFileSystem&>(block.Files).Reserve(block, offset, length);
}

int FolderSetTimes(PFILE_OBJECT file, const timespec times[2])
{
    FolderBlock& block = *FolderBlockOf(file);
    return static_cast<FolderFileSystem&>(block.Files).SetTimes(block, times);
}
}
