// Listing directories.
#include "live/mount/operations.h"
#include "live/mount/replies.h"

#include <cerrno>
#include <cstring>
#include <memory>

namespace live
{
namespace
{
constexpr ULONG ListingBytes = 64 << 10;

mode_t TypeOf(ULONG attributes)
{
    if ((attributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0)
    {
        return S_IFLNK;
    }
    if ((attributes & FILE_ATTRIBUTE_DEVICE) != 0)
    {
        return 0;
    }
    return (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0 ? S_IFDIR : S_IFREG;
}

void TakeEntries(const UCHAR* records, std::vector<DirectoryEntry>* entries)
{
    for (;;)
    {
        const auto* record = reinterpret_cast<const FILE_ID_BOTH_DIR_INFORMATION*>(records);
        const hosted::WideView name(record->FileName, record->FileNameLength / sizeof(WCHAR));
        if (name != hosted::WideView(L".") && name != hosted::WideView(L".."))
        {
            entries->push_back({hosted::NameToLinux(name), static_cast<ino_t>(record->FileId.QuadPart),
                TypeOf(record->FileAttributes)});
        }
        if (record->NextEntryOffset == 0)
        {
            return;
        }
        records += record->NextEntryOffset;
    }
}

// The whole directory at once: what a program reads on must not change with what it removes meanwhile.
NTSTATUS List(PFILE_OBJECT directory, std::vector<DirectoryEntry>* entries)
{
    struct stat own = {};
    hosted::FolderStat(directory, &own);
    // The root of a Windows volume lists neither of these; here every directory has both.
    *entries = {{".", own.st_ino, S_IFDIR}, {"..", own.st_ino, S_IFDIR}};
    const std::unique_ptr<ULONGLONG[]> buffer(new ULONGLONG[ListingBytes / sizeof(ULONGLONG)]);
    for (bool restart = true;; restart = false)
    {
        ULONG_PTR used = 0;
        const NTSTATUS status = hosted::QueryDirectory(
            directory, FileIdBothDirectoryInformation, false, restart, {}, buffer.get(), ListingBytes, &used);
        if (status == STATUS_NO_MORE_FILES || status == STATUS_NO_SUCH_FILE)
        {
            return STATUS_SUCCESS;
        }
        if (!NT_SUCCESS(status))
        {
            return status;
        }
        TakeEntries(reinterpret_cast<const UCHAR*>(buffer.get()), entries);
    }
}

// As many entries as the answer has room for.
NTSTATUS Fill(fuse_req_t request, OpenHandle& handle, off_t offset, std::vector<char>* answer, size_t* used)
{
    const std::lock_guard guard(handle.Lock);
    const NTSTATUS status = offset == 0 ? List(handle.File.Get(), &handle.Entries) : STATUS_SUCCESS;
    for (size_t next = static_cast<size_t>(offset); NT_SUCCESS(status) && next < handle.Entries.size(); ++next)
    {
        const DirectoryEntry& entry = handle.Entries[next];
        struct stat info = {};
        info.st_ino = entry.Inode;
        info.st_mode = entry.Type;
        const size_t room = answer->size() - *used;
        const size_t needed = fuse_add_direntry(
            request, answer->data() + *used, room, entry.Name.c_str(), &info, static_cast<off_t>(next + 1));
        if (needed > room)
        {
            break;
        }
        *used += needed;
    }
    return status;
}
}

void OpenDirectory(fuse_req_t request, fuse_ino_t node, fuse_file_info* info)
{
    AsRequester(request,
        [&]
        {
            MountState& state = StateOf(request);
            auto handle = std::make_unique<OpenHandle>();
            handle->Node = node;
            {
                constexpr OpenWish listing = {
                    .Access = LookRights | FILE_LIST_DIRECTORY | Traverse, .Options = FILE_DIRECTORY_FILE};
                const std::shared_lock names(state.Names);
                if (const int error = OpenNode(state, node, listing, &handle->File))
                {
                    return error;
                }
            }
            HandOver(state, std::move(handle), info, [&] { return fuse_reply_open(request, info); });
            return 0;
        });
}

void ReadDirectory(fuse_req_t request, fuse_ino_t, size_t size, off_t offset, fuse_file_info* info)
{
    std::vector<char> answer(size);
    size_t used = 0;
    const NTSTATUS status = Fill(request, *HandleOf(info), offset, &answer, &used);
    // With the answer the program may let go of the handle, and another thread with it.
    if (!NT_SUCCESS(status))
    {
        ReplyStatus(request, status);
        return;
    }
    fuse_reply_buf(request, answer.data(), used);
}
}
