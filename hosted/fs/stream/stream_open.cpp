// Opens, as far as they do not depend on where names come from.
#include "hosted/fs/stream/stream_file_system.h"

#include "hosted/io/file_object.h"

namespace hosted
{
namespace
{
constexpr ULONG DispositionShift = 24;

// Two opens that ask for data or deletion must each share what the other has.
bool Conflicts(ACCESS_MASK access, ULONG share, const OpenContext& other)
{
    const auto refuses = [](ACCESS_MASK wanted, ULONG shared)
    {
        return ((wanted & DataReadRights) && !(shared & FILE_SHARE_READ)) ||
               ((wanted & DataWriteRights) && !(shared & FILE_SHARE_WRITE)) ||
               ((wanted & DELETE) && !(shared & FILE_SHARE_DELETE));
    };
    constexpr ACCESS_MASK Counted = DataReadRights | DataWriteRights | DELETE;
    if (!(access & Counted) || !(other.Access & Counted))
    {
        return false;
    }
    return refuses(access, other.Share) || refuses(other.Access, share);
}
}

bool Overwrites(ULONG disposition)
{
    return disposition == FILE_SUPERSEDE || disposition == FILE_OVERWRITE || disposition == FILE_OVERWRITE_IF;
}

bool NeedsExisting(ULONG disposition)
{
    return disposition == FILE_OPEN || disposition == FILE_OVERWRITE;
}

bool IsRelativeName(PFILE_OBJECT file)
{
    const PFILE_OBJECT related = file->RelatedFileObject;
    const WideView name = View(file->FileName);
    // Below a volume both forms are in use.
    const bool belowVolume = related != nullptr && (related->Flags & FO_VOLUME_OPEN);
    return related != nullptr && !(belowVolume && !name.empty() && name[0] == L'\\');
}

NTSTATUS StreamFileSystem::Create(FLT_IO_PARAMETER_BLOCK& operation, ULONG_PTR* information)
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
        .Ea = parameters.EaBuffer,
        .EaLength = parameters.EaLength,
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
        status = OpenTarget(request);
    }
    if (NT_SUCCESS(status) && request.Truncate)
    {
        status = Overwrite(request);
    }
    *information = NT_SUCCESS(status) ? request.Information : 0;
    return status;
}

NTSTATUS StreamFileSystem::CheckSharing(const ControlBlock& block, const CreateRequest& request) const
{
    // Replacing the contents takes the right to write them, or to delete them, whatever the open asks for.
    ACCESS_MASK checked = request.Access;
    checked |= !request.Truncate ? 0 : request.Disposition == FILE_SUPERSEDE ? DELETE : FILE_WRITE_DATA;
    for (const OpenContext* other : block.Opens)
    {
        if (!other->CleanedUp && Conflicts(checked, request.Share, *other))
        {
            return STATUS_SHARING_VIOLATION;
        }
    }
    return STATUS_SUCCESS;
}

void StreamFileSystem::Attach(
    const CreateRequest& request, std::shared_ptr<ControlBlock> block, std::unique_ptr<OpenContext> open)
{
    const PFILE_OBJECT file = request.File;
    open->Access = request.Access;
    open->Share = request.Share;
    open->DeleteOnClose = (request.Options & FILE_DELETE_ON_CLOSE) != 0;
    block->Opens.push_back(open.get());
    ++block->OpenCount;
    if (request.Flags & SL_OPEN_PAGING_FILE)
    {
        block->PagingFileStream = true;
    }
    file->FsContext = static_cast<PFSRTL_COMMON_FCB_HEADER>(block.get());
    file->SectionObjectPointer = block->Map != nullptr ? &block->Sections : nullptr;
    file->ReadAccess = (request.Access & DataReadRights) != 0;
    file->WriteAccess = (request.Access & DataWriteRights) != 0;
    file->DeleteAccess = (request.Access & DELETE) != 0;
    file->SharedRead = (request.Share & FILE_SHARE_READ) != 0;
    file->SharedWrite = (request.Share & FILE_SHARE_WRITE) != 0;
    file->SharedDelete = (request.Share & FILE_SHARE_DELETE) != 0;
    const bool cached = block->Map != nullptr && !(request.Options & FILE_NO_INTERMEDIATE_BUFFERING);
    file->Flags |= cached ? FO_CACHE_SUPPORTED : 0;
    open->Block = std::move(block);
    file->FsContext2 = open.release();
}

// The open is attached already, so the stream stays; it is undone when the contents cannot be replaced.
NTSTATUS StreamFileSystem::Overwrite(CreateRequest& request)
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
    Overwritten(block, request);
    return STATUS_SUCCESS;
}
}
