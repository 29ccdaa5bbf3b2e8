// Opening and creating files, directories, streams and the volume.
#include "hosted/fs/disk_file_system.h"

#include "hosted/io/file_object.h"
#include "hosted/ke/system_time.h"

namespace host
{
namespace
{
constexpr ULONG DispositionShift = 24;
constexpr ACCESS_MASK ReadRights = FILE_READ_DATA | FILE_EXECUTE;
constexpr ACCESS_MASK WriteRights = FILE_WRITE_DATA | FILE_APPEND_DATA;
constexpr ULONG SettableAttributes = 0x000001a7; // read-only, hidden, system, archive, normal, temporary

bool Overwrites(ULONG disposition)
{
    return disposition == FILE_SUPERSEDE || disposition == FILE_OVERWRITE || disposition == FILE_OVERWRITE_IF;
}

bool NeedsExisting(ULONG disposition)
{
    return disposition == FILE_OPEN || disposition == FILE_OVERWRITE;
}

ULONG FileAttributes(ULONG asked)
{
    return (asked & SettableAttributes & ~FILE_ATTRIBUTE_NORMAL) | FILE_ATTRIBUTE_ARCHIVE;
}

// Two opens that ask for data or deletion must each share what the other has.
bool Conflicts(ACCESS_MASK access, ULONG share, const OpenContext& other)
{
    const auto refuses = [](ACCESS_MASK wanted, ULONG shared)
    {
        return ((wanted & ReadRights) && !(shared & FILE_SHARE_READ)) ||
               ((wanted & WriteRights) && !(shared & FILE_SHARE_WRITE)) ||
               ((wanted & DELETE) && !(shared & FILE_SHARE_DELETE));
    };
    constexpr ACCESS_MASK Counted = ReadRights | WriteRights | DELETE;
    if (!(access & Counted) || !(other.Access & Counted))
    {
        return false;
    }
    return refuses(access, other.Share) || refuses(other.Access, share);
}
}

struct DiskFileSystem::CreateRequest
{
    PFILE_OBJECT File;
    ULONG Disposition;
    ULONG Options;
    ULONG Attributes;
    ACCESS_MASK Access;
    ULONG Share;
    UCHAR Flags;
    bool VolumeOpen = false;
    ParsedPath Path;
    ULONG_PTR Information = 0; // FILE_OPENED and so on
    bool Truncate = false;     // the stream's old contents go once the tree lock is released

    bool WantsDirectory() const { return (Options & FILE_DIRECTORY_FILE) != 0; }
    bool WantsFile() const { return (Options & FILE_NON_DIRECTORY_FILE) != 0; }
    bool ById() const { return (Options & FILE_OPEN_BY_FILE_ID) != 0; }
};

NTSTATUS DiskFileSystem::Create(FLT_IO_PARAMETER_BLOCK& operation, ULONG_PTR* information)
{
    const auto& parameters = operation.Parameters.Create;
    const auto* security = static_cast<const CreateSecurity*>(parameters.SecurityContext);
    CreateRequest request{.File = operation.TargetFileObject,
        .Disposition = parameters.Options >> DispositionShift,
        .Options = parameters.Options & ((1u << DispositionShift) - 1),
        .Attributes = parameters.FileAttributes,
        .Access = security != nullptr ? MapFileAccess(security->DesiredAccess) : 0,
        .Share = parameters.ShareAccess,
        .Flags = operation.OperationFlags,
        .Path = {}};
    if (request.Disposition > FILE_OVERWRITE_IF || (request.WantsDirectory() && request.WantsFile()) ||
        (request.WantsDirectory() && Overwrites(request.Disposition)))
    {
        return STATUS_INVALID_PARAMETER;
    }
    if (request.File->FileName.Length % sizeof(WCHAR) != 0)
    {
        return STATUS_OBJECT_NAME_INVALID;
    }
    const WideView name = View(request.File->FileName);
    const bool relative = IsRelativeName(request.File);
    request.VolumeOpen = name.empty() && (!relative || (request.File->RelatedFileObject->Flags & FO_VOLUME_OPEN));
    NTSTATUS status = request.ById() ? STATUS_SUCCESS : ParsePath(name, relative, &request.Path);
    if (NT_SUCCESS(status))
    {
        std::lock_guard guard(tree_);
        status = OpenLocked(request);
    }
    if (NT_SUCCESS(status) && request.Truncate)
    {
        status = Overwrite(request);
    }
    *information = NT_SUCCESS(status) ? request.Information : 0;
    return status;
}

NTSTATUS DiskFileSystem::OpenLocked(CreateRequest& request)
{
    if (request.VolumeOpen)
    {
        request.Information = FILE_OPENED;
        if (request.WantsDirectory())
        {
            return STATUS_NOT_A_DIRECTORY;
        }
        if (request.Disposition != FILE_OPEN && request.Disposition != FILE_OPEN_IF)
        {
            return STATUS_ACCESS_DENIED;
        }
        NTSTATUS status = AttachOpen(request, volumeNode_.get(), volumeNode_->Streams.begin()->second.get());
        request.File->Flags |= NT_SUCCESS(status) ? FO_VOLUME_OPEN : 0;
        return status;
    }
    Node* parent = nullptr;
    Node* node = nullptr;
    NTSTATUS status = FindTarget(request, &parent, &node);
    if (!NT_SUCCESS(status))
    {
        return status;
    }
    return node != nullptr ? OpenExisting(request, node) : CreateNew(request, parent, request.Path.Components.back());
}

// *node stays null where a file of that name could be created in *parent.
NTSTATUS DiskFileSystem::FindTarget(CreateRequest& request, Node** parent, Node** node)
{
    if (request.ById())
    {
        if (!NeedsExisting(request.Disposition) && request.Disposition != FILE_OPEN_IF)
        {
            return STATUS_INVALID_PARAMETER;
        }
        return NodeByFileId(View(request.File->FileName), node);
    }
    const std::vector<WideString>& components = request.Path.Components;
    Node* start = StartOf(request.File);
    if (start->Deleted)
    {
        return STATUS_DELETE_PENDING;
    }
    if (components.empty())
    {
        *node = start;
        return STATUS_SUCCESS;
    }
    NTSTATUS status = Walk(start, components, components.size() - 1, parent);
    if (!NT_SUCCESS(status) || !(*parent)->Info.Directory)
    {
        return STATUS_OBJECT_PATH_NOT_FOUND;
    }
    *node = FindChild(*parent, components.back());
    if (*node == nullptr && NeedsExisting(request.Disposition))
    {
        return STATUS_OBJECT_NAME_NOT_FOUND;
    }
    return STATUS_SUCCESS;
}

NTSTATUS DiskFileSystem::OpenExisting(CreateRequest& request, Node* node)
{
    if (node->DeletePending || node->Deleted)
    {
        return STATUS_DELETE_PENDING;
    }
    auto found = node->Streams.find(request.Path.Stream);
    const bool exists = found != node->Streams.end();
    if (exists && request.Disposition == FILE_CREATE)
    {
        return STATUS_OBJECT_NAME_COLLISION;
    }
    const bool asDirectory = node->Info.Directory && !request.Path.StreamGiven;
    if (asDirectory && (request.WantsFile() || Overwrites(request.Disposition)))
    {
        return STATUS_FILE_IS_A_DIRECTORY;
    }
    if (!asDirectory && request.WantsDirectory())
    {
        return STATUS_NOT_A_DIRECTORY;
    }
    if (!asDirectory && request.Path.TrailingBackslash)
    {
        return STATUS_OBJECT_NAME_INVALID;
    }
    if (node->Info.Directory && request.Path.StreamGiven && request.Path.Stream.empty())
    {
        // A directory has no unnamed data.
        return STATUS_FILE_IS_A_DIRECTORY;
    }
    const bool readOnly = (node->Info.Attributes & FILE_ATTRIBUTE_READONLY) && !asDirectory;
    if (readOnly && ((request.Access & WriteRights) || Overwrites(request.Disposition) || !exists))
    {
        return STATUS_ACCESS_DENIED;
    }
    if ((request.Options & FILE_DELETE_ON_CLOSE) && (readOnly || node == root_.get()))
    {
        return STATUS_CANNOT_DELETE;
    }
    Stream* stream = nullptr;
    if (!exists)
    {
        NTSTATUS status = NeedsExisting(request.Disposition) ? STATUS_OBJECT_NAME_NOT_FOUND
                                                             : AddStream(node, request.Path.Stream, &stream);
        request.Information = FILE_CREATED;
        return NT_SUCCESS(status) ? AttachOpen(request, node, stream) : status;
    }
    stream = found->second.get();
    request.Truncate = Overwrites(request.Disposition);
    request.Information = request.Disposition == FILE_SUPERSEDE ? FILE_SUPERSEDED
                          : request.Truncate                    ? FILE_OVERWRITTEN
                                                                : FILE_OPENED;
    return stream->DeletePending ? STATUS_DELETE_PENDING : AttachOpen(request, node, stream);
}

NTSTATUS DiskFileSystem::CreateNew(CreateRequest& request, Node* parent, WideView name)
{
    const bool directory = request.WantsDirectory();
    if (directory && request.Path.StreamGiven)
    {
        return STATUS_NOT_A_DIRECTORY;
    }
    if (!directory && request.Path.TrailingBackslash)
    {
        return STATUS_OBJECT_NAME_INVALID;
    }
    const bool readOnly = (request.Attributes & FILE_ATTRIBUTE_READONLY) != 0;
    if ((request.Options & FILE_DELETE_ON_CLOSE) && readOnly)
    {
        return STATUS_CANNOT_DELETE;
    }
    if (!request.Path.Stream.empty() && !store_->CanHold(name, request.Path.Stream))
    {
        return STATUS_OBJECT_NAME_INVALID;
    }
    const ULONG attributes = directory
                                 ? (request.Attributes & SettableAttributes & ~FILE_ATTRIBUTE_NORMAL) |
                                       FILE_ATTRIBUTE_DIRECTORY
                                 : FileAttributes(request.Attributes);
    Node* node = nullptr;
    NTSTATUS status = AddNode(parent, name, directory, attributes, &node);
    if (!NT_SUCCESS(status))
    {
        return status;
    }
    Stream* stream = node->Streams.begin()->second.get();
    if (!request.Path.Stream.empty())
    {
        status = AddStream(node, request.Path.Stream, &stream);
        if (!NT_SUCCESS(status))
        {
            std::vector<std::shared_ptr<ControlBlock>> none;
            RemoveNode(node, &none);
            return status;
        }
    }
    request.Information = FILE_CREATED;
    return AttachOpen(request, node, stream);
}

NTSTATUS DiskFileSystem::AttachOpen(CreateRequest& request, Node* node, Stream* stream)
{
    // Replacing the contents takes the right to write them, or to delete them, whatever the open asks for.
    ACCESS_MASK checked = request.Access;
    checked |= !request.Truncate ? 0 : request.Disposition == FILE_SUPERSEDE ? DELETE : FILE_WRITE_DATA;
    if (stream->Active)
    {
        for (const OpenContext* other : stream->Active->Opens)
        {
            if (!other->CleanedUp && Conflicts(checked, request.Share, *other))
            {
                return STATUS_SHARING_VIOLATION;
            }
        }
    }
    std::shared_ptr<ControlBlock> block = Activate(node, stream);
    auto* open = new OpenContext{.Block = block, .Access = request.Access, .Share = request.Share,
        .DeleteOnClose = (request.Options & FILE_DELETE_ON_CLOSE) != 0, .Scan = {}};
    block->Opens.push_back(open);
    ++block->OpenCount;
    ++node->Handles;
    ++stream->Handles;
    if (request.Flags & SL_OPEN_PAGING_FILE)
    {
        block->PagingFileStream = true;
    }
    const PFILE_OBJECT file = request.File;
    file->FsContext = static_cast<PFSRTL_COMMON_FCB_HEADER>(block.get());
    file->FsContext2 = open;
    file->SectionObjectPointer = block->Map != nullptr ? &block->Sections : nullptr;
    file->ReadAccess = (request.Access & ReadRights) != 0;
    file->WriteAccess = (request.Access & WriteRights) != 0;
    file->DeleteAccess = (request.Access & DELETE) != 0;
    file->SharedRead = (request.Share & FILE_SHARE_READ) != 0;
    file->SharedWrite = (request.Share & FILE_SHARE_WRITE) != 0;
    file->SharedDelete = (request.Share & FILE_SHARE_DELETE) != 0;
    const bool cached = block->Map != nullptr && !(request.Options & FILE_NO_INTERMEDIATE_BUFFERING);
    file->Flags |= cached ? FO_CACHE_SUPPORTED : 0;
    return STATUS_SUCCESS;
}

// The open is attached already, so the stream stays; it is undone when the contents cannot be replaced.
NTSTATUS DiskFileSystem::Overwrite(CreateRequest& request)
{
    ControlBlock& block = *BlockOf(request.File);
    NTSTATUS status;
    {
        std::unique_lock main(block.Main);
        status = Resize(block, 0, false);
    }
    if (!NT_SUCCESS(status))
    {
        OpenOf(request.File)->DeleteOnClose = false;
        Close(request.File);
        return status;
    }
    std::vector<std::shared_ptr<ControlBlock>> discard;
    {
        std::lock_guard guard(tree_);
        Node* node = block.Owner.get();
        node->Info.LastWriteTime = node->Info.ChangeTime = SystemTime();
        if (block.Record->Name.empty() && !node->Deleted)
        {
            node->Info.Attributes = FileAttributes(request.Attributes);
            // The other streams belonged to the old contents; those that are open stay.
            std::vector<Stream*> old;
            for (auto& [name, stream] : node->Streams)
            {
                if (!name.empty() && stream->Handles == 0)
                {
                    old.push_back(stream.get());
                }
            }
            for (Stream* stream : old)
            {
                RemoveStream(node, stream, &discard);
            }
        }
        node->Changed = true;
        SaveIfChanged(node);
    }
    Discard(discard);
    return STATUS_SUCCESS;
}
}
