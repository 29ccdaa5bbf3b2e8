// What programs ask of files and directories of the folder.
#include "hosted/fs/folder/folder_file_system.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/sysmacros.h>

namespace hosted
{
namespace
{
timespec TimeOf(const statx_timestamp& time)
{
    return {static_cast<time_t>(time.tv_sec), static_cast<long>(time.tv_nsec)};
}

FileKey KeyOf(const struct statx& info)
{
    return {makedev(info.stx_dev_major, info.stx_dev_minor), info.stx_ino};
}

FileFacts FactsOf(const struct statx& info)
{
    FileFacts facts;
    facts.LastAccessTime = SystemTimeOf(TimeOf(info.stx_atime));
    facts.LastWriteTime = SystemTimeOf(TimeOf(info.stx_mtime));
    facts.ChangeTime = SystemTimeOf(TimeOf(info.stx_ctime));
    // Not every host file system knows when a file was made.
    facts.CreationTime = info.stx_mask & STATX_BTIME ? SystemTimeOf(TimeOf(info.stx_btime)) : facts.LastWriteTime;
    facts.Directory = S_ISDIR(info.stx_mode);
    facts.Attributes = facts.Directory          ? FILE_ATTRIBUTE_DIRECTORY
                       : S_ISLNK(info.stx_mode) ? FILE_ATTRIBUTE_REPARSE_POINT
                       : S_ISREG(info.stx_mode) ? FILE_ATTRIBUTE_ARCHIVE
                                                : FILE_ATTRIBUTE_DEVICE;
    facts.Size = S_ISREG(info.stx_mode) ? static_cast<LONGLONG>(info.stx_size) : 0;
    facts.Id = info.stx_ino;
    facts.Links = facts.Directory ? 1 : info.stx_nlink;
    return facts;
}

std::vector<std::string> NamesIn(int directory)
{
    std::vector<std::string> names;
    DIR* listing = fdopendir(openat(directory, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (listing == nullptr)
    {
        return names;
    }
    while (const dirent* entry = readdir(listing))
    {
        names.emplace_back(entry->d_name);
    }
    closedir(listing);
    return names;
}
}

FolderBlock* FolderFileSystem::FindBlock(FileKey key) const
{
    auto found = blocks_.find(key);
    return found == blocks_.end() ? nullptr : found->second;
}

bool FolderFileSystem::FactsAt(int directory, const char* name, FileFacts* facts)
{
    struct statx info = {};
    const int flags = AT_SYMLINK_NOFOLLOW | (name[0] == 0 ? AT_EMPTY_PATH : 0);
    if (statx(directory, name, flags, STATX_BASIC_STATS | STATX_BTIME, &info) != 0)
    {
        return false;
    }
    *facts = FactsOf(info);
    const FolderBlock* block = FindBlock(KeyOf(info));
    if (block != nullptr && block->Kind == StreamKind::Data)
    {
        facts->Size = block->Size();
        facts->LastWriteTime = block->TimePinned ? SystemTimeOf(block->WriteTime) : facts->LastWriteTime;
    }
    return true;
}

NTSTATUS FolderFileSystem::Describe(PFILE_OBJECT file, FileFacts* facts, WideString* path)
{
    const FolderBlock& block = *FolderBlockOf(file);
    const FolderOpen* open = FolderOpenOf(file);
    if (!FactsAt(block.Descriptor.Get(), "", facts))
    {
        return STATUS_UNEXPECTED_IO_ERROR;
    }
    // Paging file objects have no name.
    if (open != nullptr)
    {
        facts->DeletePending = open->Entry->DeletePending || open->Entry->Gone;
        *path = open->Entry->Path();
    }
    return STATUS_SUCCESS;
}

std::vector<StoredStream> FolderFileSystem::StreamsOf(const ControlBlock& block)
{
    return block.Kind == StreamKind::Data ? std::vector<StoredStream>{{{}, block.Size()}} : std::vector<StoredStream>{};
}

NTSTATUS FolderFileSystem::PrepareScan(OpenContext& context, bool restart)
{
    auto& open = static_cast<FolderOpen&>(context);
    if (open.Entry->Gone || open.Entry->DeletePending)
    {
        return STATUS_DELETE_PENDING;
    }
    if (!restart)
    {
        return STATUS_SUCCESS;
    }
    const int directory = static_cast<FolderBlock&>(*open.Block).Descriptor.Get();
    const WideString& pattern = open.Scan.Pattern;
    // A name is looked up as it stands, and only where there is none like it does another case count.
    const std::string exact = pattern.empty() || HasWildcards(pattern) ? std::string() : NameToLinux(pattern);
    FileFacts facts;
    open.Listing = !exact.empty() && FactsAt(directory, exact.c_str(), &facts) ? std::vector<std::string>{exact}
                                                                               : NamesIn(directory);
    return STATUS_SUCCESS;
}

bool FolderFileSystem::NextEntry(OpenContext& context, ListedFile* listed)
{
    auto& open = static_cast<FolderOpen&>(context);
    const int directory = static_cast<FolderBlock&>(*open.Block).Descriptor.Get();
    DirectoryScan& scan = open.Scan;
    // The root has neither of the two.
    for (; scan.Dots < 2; ++scan.Dots)
    {
        const char* name = scan.Dots == 0 ? "." : "..";
        if (!open.Entry->IsRoot() && FactsAt(directory, name, &listed->Facts))
        {
            listed->Name = Widen(name);
            ++scan.Dots;
            return true;
        }
    }
    for (; scan.NextListed < open.Listing.size(); ++scan.NextListed)
    {
        const std::string& name = open.Listing[scan.NextListed];
        const bool shown = NameFromLinux(name, &listed->Name) && !IsHidden(*open.Entry, listed->Name) &&
                           MatchesQuery(scan.Pattern, listed->Name);
        if (shown && FactsAt(directory, name.c_str(), &listed->Facts))
        {
            ++scan.NextListed;
            return true;
        }
    }
    return false;
}
}
