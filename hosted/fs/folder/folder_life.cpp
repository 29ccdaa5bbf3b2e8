// What becomes of open files of the folder: writes, flushes, the last handle, the close.
#include "hosted/fs/folder/folder_file_system.h"

#include "hosted/ke/system_time.h"

#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

namespace hosted
{
namespace
{
bool Earlier(const timespec& left, const timespec& right)
{
    return left.tv_sec != right.tv_sec ? left.tv_sec < right.tv_sec : left.tv_nsec < right.tv_nsec;
}

int SetLinuxTimes(int descriptor, const timespec times[2])
{
    return utimensat(descriptor, "", times, AT_EMPTY_PATH) == 0 ? 0 : errno;
}
}

void FolderFileSystem::Written(ControlBlock& block)
{
    auto& written = static_cast<FolderBlock&>(block);
    const timespec now = LinuxTimeOf(SystemTime());
    std::lock_guard guard(tree_);
    written.TimePinned = true;
    written.WriteTime = now;
}

void FolderFileSystem::Overwritten(ControlBlock& block, const CreateRequest&)
{
    Written(block);
}

// The tree lock is held.
void FolderFileSystem::ApplyTime(FolderBlock& block)
{
    if (block.TimePinned)
    {
        const timespec times[2] = {{0, UTIME_OMIT}, block.WriteTime};
        // Where the host does not allow it the time is that of the write to disk.
        SetLinuxTimes(block.Descriptor.Get(), times);
        block.TimePinned = false;
    }
}

NTSTATUS FolderFileSystem::SyncStore(ControlBlock& block)
{
    auto& flushed = static_cast<FolderBlock&>(block);
    if (options_.ReadOnly)
    {
        return STATUS_SUCCESS;
    }
    if (block.Kind == StreamKind::Directory)
    {
        const Descriptor directory(openat(flushed.Descriptor.Get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        return directory && fsync(directory.Get()) == 0 ? STATUS_SUCCESS : StatusFromErrno(errno);
    }
    if (block.Kind != StreamKind::Data)
    {
        return STATUS_SUCCESS;
    }
    {
        std::lock_guard guard(tree_);
        ApplyTime(flushed);
    }
    return flushed.Stored().Sync();
}

int FolderFileSystem::SetTimes(FolderBlock& block, const timespec times[2])
{
    std::lock_guard guard(tree_);
    const int error = SetLinuxTimes(block.Descriptor.Get(), times);
    // What the cache still has to write would change it again.
    if (error == 0 && block.Kind == StreamKind::Data && times[1].tv_nsec != UTIME_OMIT)
    {
        struct stat info = {};
        block.TimePinned = fstat(block.Descriptor.Get(), &info) == 0;
        block.WriteTime = info.st_mtim;
    }
    return error;
}

NTSTATUS FolderFileSystem::Reserve(FolderBlock& block, LONGLONG offset, LONGLONG length)
{
    std::shared_lock main(block.Main);
    return ReserveRoom(block, offset, offset + length);
}

int FolderFileSystem::Stat(PFILE_OBJECT file, struct stat* info)
{
    FolderBlock& block = *FolderBlockOf(file);
    std::lock_guard guard(tree_);
    if (fstat(block.Descriptor.Get(), info) != 0)
    {
        return errno;
    }
    if (block.Kind != StreamKind::Data)
    {
        return 0;
    }
    constexpr LONGLONG StatBlock = 512;
    const LONGLONG stored = block.Stored().Physical();
    info->st_size = block.Size();
    // What only the cache has will take room.
    info->st_blocks += info->st_size > stored ? AllocationFor(info->st_size - stored) / StatBlock : 0;
    if (block.TimePinned)
    {
        info->st_mtim = block.WriteTime;
        info->st_ctim = Earlier(info->st_ctim, block.WriteTime) ? block.WriteTime : info->st_ctim;
    }
    return 0;
}

void FolderFileSystem::Closing(OpenContext& open)
{
    static_cast<FolderOpen&>(open).Entry = nullptr;
}

void FolderFileSystem::TornDown(ControlBlock& block)
{
    auto& gone = static_cast<FolderBlock&>(block);
    if (block.Kind == StreamKind::Volume)
    {
        return;
    }
    blocks_.erase(gone.Key);
    if (!gone.Unlinked && block.Kind == StreamKind::Data)
    {
        ApplyTime(gone);
    }
}

void FolderFileSystem::Cleanup(PFILE_OBJECT file)
{
    FolderOpen* open = FolderOpenOf(file);
    if (open == nullptr)
    {
        return;
    }
    FolderEntry* entry = open->Entry.get();
    bool remove;
    std::vector<std::shared_ptr<ControlBlock>> discard;
    {
        std::lock_guard guard(tree_);
        FolderBlock& block = *FolderBlockOf(file);
        if (open->CleanedUp)
        {
            return;
        }
        open->CleanedUp = true;
        --block.Handles;
        if (entry == nullptr)
        {
            return;
        }
        --entry->Handles;
        entry->DeletePending = entry->DeletePending || (open->DeleteOnClose && !entry->Gone);
        remove = entry->DeletePending && !entry->Gone && entry->Handles == 0;
        if (block.Unlinked && block.Handles == 0)
        {
            ++block.OpenCount;
            discard.push_back(block.shared_from_this());
        }
    }
    if (remove)
    {
        std::unique_lock names(names_);
        // Nobody can be told here that a removal failed; the file stays.
        RemoveName(*entry, &discard);
        std::lock_guard guard(tree_);
        entry->DeletePending = false;
    }
    Discard(discard);
}

void FolderFileSystem::NoteLinks(FileKey file, std::vector<std::shared_ptr<ControlBlock>>* discard)
{
    FolderBlock* block = FindBlock(file);
    struct stat info = {};
    if (block == nullptr || fstat(block->Descriptor.Get(), &info) != 0 || info.st_nlink != 0)
    {
        return;
    }
    block->Unlinked = true;
    if (block->Handles == 0)
    {
        // Counted like an open, so that the block is not torn down before.
        ++block->OpenCount;
        discard->push_back(block->shared_from_this());
    }
}

Descriptor FolderFileSystem::DirectoryOf(const std::string& path)
{
    return OpenBelow(folder_.Get(), path, O_PATH | O_DIRECTORY, rule_);
}

NTSTATUS FolderFileSystem::RemoveName(FolderEntry& entry, std::vector<std::shared_ptr<ControlBlock>>* discard)
{
    std::string above;
    std::string name;
    {
        std::lock_guard guard(tree_);
        if (entry.Gone || entry.IsRoot())
        {
            return entry.Gone ? STATUS_FILE_DELETED : STATUS_CANNOT_DELETE;
        }
        above = entry.Parent->LinuxPath();
        name = NameToLinux(entry.Name);
    }
    const Descriptor directory = DirectoryOf(above);
    struct stat info = {};
    if (!directory || fstatat(directory.Get(), name.c_str(), &info, AT_SYMLINK_NOFOLLOW) != 0)
    {
        return StatusFromErrno(errno);
    }
    // Whatever somebody else put there meanwhile stays.
    const bool same = KeyOf(info) == entry.File;
    if (same && unlinkat(directory.Get(), name.c_str(), S_ISDIR(info.st_mode) ? AT_REMOVEDIR : 0) != 0)
    {
        return StatusFromErrno(errno);
    }
    std::lock_guard guard(tree_);
    entry.Detach();
    NoteLinks(entry.File, discard);
    return same ? STATUS_SUCCESS : STATUS_FILE_DELETED;
}
}
