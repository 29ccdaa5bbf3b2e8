// Listing directories.
#include "hosted/fs/stream/stream_file_system.h"

#include "hosted/io/file_object.h"
#include "hosted/io/mdl.h"
#include "hosted/ke/user_access.h"

#include <cstring>

namespace hosted
{
namespace
{
// The record layouts share their beginning; Names has only the links and the name.
ULONG FixedLength(FILE_INFORMATION_CLASS kind)
{
    switch (kind)
    {
    case FileDirectoryInformation:
        return 64;
    case FileFullDirectoryInformation:
        return 68;
    case FileBothDirectoryInformation:
        return FIELD_OFFSET(FILE_BOTH_DIR_INFORMATION, FileName);
    case FileIdBothDirectoryInformation:
        return FIELD_OFFSET(FILE_ID_BOTH_DIR_INFORMATION, FileName);
    case FileNamesInformation:
        return 12;
    default:
        return 0;
    }
}

// The record up to the name.
std::string FixedPart(const ScannedEntry& entry, FILE_INFORMATION_CLASS kind)
{
    const ULONG nameBytes = static_cast<ULONG>(entry.Name.size() * sizeof(WCHAR));
    FILE_ID_BOTH_DIR_INFORMATION record;
    std::memset(&record, 0, sizeof(record));
    if (kind == FileNamesInformation)
    {
        std::string bytes(FixedLength(kind), '\0');
        std::memcpy(bytes.data() + 2 * sizeof(ULONG), &nameBytes, sizeof(nameBytes));
        return bytes;
    }
    const FileFacts& facts = entry.Facts;
    record.CreationTime.QuadPart = facts.CreationTime;
    record.LastAccessTime.QuadPart = facts.LastAccessTime;
    record.LastWriteTime.QuadPart = facts.LastWriteTime;
    record.ChangeTime.QuadPart = facts.ChangeTime;
    record.EndOfFile.QuadPart = facts.Size;
    record.AllocationSize.QuadPart = AllocationFor(facts.Size);
    record.FileAttributes = facts.Attributes != 0 ? facts.Attributes : FILE_ATTRIBUTE_NORMAL;
    record.FileNameLength = nameBytes;
    record.ShortNameLength = static_cast<CCHAR>(entry.ShortName.size() * sizeof(WCHAR));
    entry.ShortName.copy(record.ShortName, std::size(record.ShortName));
    record.FileId.QuadPart = static_cast<LONGLONG>(facts.Id);
    return std::string(reinterpret_cast<const char*>(&record), FixedLength(kind));
}

bool Matches(const WideString& pattern, const ScannedEntry& entry)
{
    return MatchesQuery(pattern, entry.Name) || (!entry.ShortName.empty() && MatchesQuery(pattern, entry.ShortName));
}

NTSTATUS CopyOut(void* to, const std::string& from)
{
    if (IsUserAddress(to))
    {
        return GuardedCopy(to, from.data(), from.size());
    }
    std::memcpy(to, from.data(), from.size());
    return STATUS_SUCCESS;
}
}

NTSTATUS StreamFileSystem::QueryDirectory(FLT_IO_PARAMETER_BLOCK& operation, ULONG_PTR* information)
{
    const PFILE_OBJECT file = operation.TargetFileObject;
    ControlBlock* block = BlockOf(file);
    const auto& parameters = operation.Parameters.QueryDirectory;
    if (block == nullptr || block->Kind != StreamKind::Directory || OpenOf(file) == nullptr)
    {
        return STATUS_INVALID_PARAMETER;
    }
    const ULONG fixed = FixedLength(parameters.FileInformationClass);
    if (fixed == 0)
    {
        return STATUS_INVALID_INFO_CLASS;
    }
    // Room for the record's own size, which ends with one character.
    if (parameters.Length < (fixed + sizeof(WCHAR) + 7) / 8 * 8 && parameters.Length < fixed + sizeof(WCHAR))
    {
        return STATUS_INFO_LENGTH_MISMATCH;
    }
    std::string entries;
    NTSTATUS status;
    {
        std::lock_guard guard(tree_);
        status = FillDirectory(*OpenOf(file), operation, &entries);
    }
    if (!NT_SUCCESS(status) && status != STATUS_BUFFER_OVERFLOW)
    {
        return status;
    }
    void* buffer =
        parameters.MdlAddress != nullptr ? MdlSystemAddress(parameters.MdlAddress) : parameters.DirectoryBuffer;
    NTSTATUS copied = CopyOut(buffer, entries);
    *information = NT_SUCCESS(copied) ? entries.size() : 0;
    return NT_SUCCESS(copied) ? status : copied;
}

NTSTATUS StreamFileSystem::FillDirectory(OpenContext& open, FLT_IO_PARAMETER_BLOCK& operation, std::string* entries)
{
    const auto& parameters = operation.Parameters.QueryDirectory;
    // The first query's pattern holds for the whole life of the open; a restart only goes back to the beginning.
    DirectoryScan& scan = open.Scan;
    const bool restart = (operation.OperationFlags & DirectoryRestartScan) != 0;
    const bool first = !scan.Started;
    const bool restarted = first || restart;
    if (restarted)
    {
        const WideString pattern = first || (restart && parameters.FileName != nullptr)
                                       ? (parameters.FileName != nullptr ? WideString(View(*parameters.FileName)) : L"")
                                       : scan.Pattern;
        scan = {.Started = true, .Pattern = pattern, .Last = {}};
    }
    NTSTATUS status = PrepareScan(open, restarted);
    if (!NT_SUCCESS(status))
    {
        return status;
    }
    size_t previous = 0;
    for (;;)
    {
        const DirectoryScan before = scan;
        ScannedEntry entry;
        if (!NextEntry(open, &entry))
        {
            break;
        }
        if (!Matches(scan.Pattern, entry))
        {
            continue;
        }
        const size_t start = (entries->size() + 7) / 8 * 8;
        std::string record = FixedPart(entry, parameters.FileInformationClass);
        record.append(reinterpret_cast<const char*>(entry.Name.data()), entry.Name.size() * sizeof(WCHAR));
        if (start + record.size() > parameters.Length)
        {
            if (entries->empty())
            {
                // As much of the only record as there is room for.
                entries->assign(record, 0, parameters.Length);
                return STATUS_BUFFER_OVERFLOW;
            }
            scan = before;
            return STATUS_SUCCESS;
        }
        if (!entries->empty())
        {
            const ULONG distance = static_cast<ULONG>(start - previous);
            std::memcpy(entries->data() + previous, &distance, sizeof(distance));
        }
        entries->resize(start);
        entries->append(record);
        previous = start;
        if (operation.OperationFlags & DirectorySingleEntry)
        {
            break;
        }
    }
    if (!entries->empty())
    {
        return STATUS_SUCCESS;
    }
    return first ? STATUS_NO_SUCH_FILE : STATUS_NO_MORE_FILES;
}
}
