// Listing directories.
#include "hosted/fs/stream/stream_file_system.h"

#include "hosted/fs/directory_records.h"
#include "hosted/io/file_object.h"
#include "hosted/io/mdl.h"
#include "hosted/ke/user_access.h"

#include <cstring>

namespace hosted
{
namespace
{
bool Matches(const WideString& pattern, const ListedFile& file)
{
    return MatchesQuery(pattern, file.Name) || (!file.ShortName.empty() && MatchesQuery(pattern, file.ShortName));
}

// The pattern of the first query holds until a restart brings another one.
void StartScan(DirectoryScan* scan, const UNICODE_STRING* pattern)
{
    WideString wanted = pattern != nullptr ? WideString(View(*pattern)) : std::move(scan->Pattern);
    *scan = {.Started = true, .Pattern = std::move(wanted), .Last = {}};
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
    const ULONG head = DirectoryRecordHead(parameters.FileInformationClass);
    if (head == 0)
    {
        return STATUS_INVALID_INFO_CLASS;
    }
    // Every name has one character at least.
    if (parameters.Length < head + sizeof(WCHAR))
    {
        return STATUS_INFO_LENGTH_MISMATCH;
    }
    std::string records;
    NTSTATUS status;
    {
        std::lock_guard guard(tree_);
        status = FillDirectory(*OpenOf(file), operation, &records);
    }
    if (!NT_SUCCESS(status) && status != STATUS_BUFFER_OVERFLOW)
    {
        return status;
    }
    void* buffer =
        parameters.MdlAddress != nullptr ? MdlSystemAddress(parameters.MdlAddress) : parameters.DirectoryBuffer;
    NTSTATUS copied = CopyOut(buffer, records);
    *information = NT_SUCCESS(copied) ? records.size() : 0;
    return NT_SUCCESS(copied) ? status : copied;
}

NTSTATUS StreamFileSystem::FillDirectory(OpenContext& open, FLT_IO_PARAMETER_BLOCK& operation, std::string* records)
{
    const auto& parameters = operation.Parameters.QueryDirectory;
    DirectoryScan& scan = open.Scan;
    const bool first = !scan.Started;
    const bool restart = first || (operation.OperationFlags & DirectoryRestartScan) != 0;
    if (restart)
    {
        StartScan(&scan, parameters.FileName);
    }
    NTSTATUS status = PrepareScan(open, restart);
    if (!NT_SUCCESS(status))
    {
        return status;
    }
    size_t last = 0;
    for (;;)
    {
        const DirectoryScan before = scan;
        ListedFile file;
        if (!NextEntry(open, &file))
        {
            break;
        }
        if (!Matches(scan.Pattern, file))
        {
            continue;
        }
        const std::string record = DirectoryRecord(file, parameters.FileInformationClass);
        if (!AppendDirectoryRecord(records, &last, record, parameters.Length))
        {
            if (records->empty())
            {
                // As much of the only record as there is room for.
                records->assign(record, 0, parameters.Length);
                return STATUS_BUFFER_OVERFLOW;
            }
            scan = before;
            return STATUS_SUCCESS;
        }
        if (operation.OperationFlags & DirectorySingleEntry)
        {
            break;
        }
    }
    if (!records->empty())
    {
        return STATUS_SUCCESS;
    }
    return first ? STATUS_NO_SUCH_FILE : STATUS_NO_MORE_FILES;
}
}
