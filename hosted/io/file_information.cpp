// Everything that programs ask of open files besides reading and writing.
#include "hosted/io/file_object.h"
#include "hosted/io/posix_information.h"

#include "hosted/ke/irql.h"
#include "hosted/ke/user_access.h"

#include <cstring>
#include <memory>

namespace hosted
{
namespace
{
ACCESS_MASK AccessToSet(FILE_INFORMATION_CLASS kind)
{
    switch (kind)
    {
    case FileRenameInformation:
    case FileRenameInformationEx:
    case FileDispositionInformation:
    case FileDispositionInformationEx:
        return DELETE;
    case FileEndOfFileInformation:
    case FileAllocationInformation:
    case FileValidDataLengthInformation:
        return FILE_WRITE_DATA;
    case FileBasicInformation:
        return FILE_WRITE_ATTRIBUTES;
    default:
        return 0;
    }
}

ULONG LeastLengthToSet(FILE_INFORMATION_CLASS kind)
{
    switch (kind)
    {
    case FileRenameInformation:
    case FileRenameInformationEx:
    case FileLinkInformation:
        return FIELD_OFFSET(FILE_RENAME_INFORMATION, FileName);
    case FileDispositionInformation:
        return sizeof(FILE_DISPOSITION_INFORMATION);
    case FileDispositionInformationEx:
        return sizeof(DispositionEx);
    case FileBasicInformation:
        return sizeof(FILE_BASIC_INFORMATION);
    default:
        return sizeof(LARGE_INTEGER);
    }
}

bool MayAny(PFILE_OBJECT file, ACCESS_MASK any)
{
    const FileState* state = StateOf(file);
    return any == 0 || state == nullptr || (state->Granted & any) != 0;
}

// A request on a buffer that the system supplies: as long as the caller's, aligned for any record.
struct SystemBuffer
{
    explicit SystemBuffer(ULONG length) : Memory(new ULONGLONG[(length + sizeof(ULONGLONG) - 1) / sizeof(ULONGLONG)]())
    {
    }
    std::unique_ptr<ULONGLONG[]> Memory;
};

FileRequest NewBufferedRequest(PFILE_OBJECT file, UCHAR majorFunction)
{
    FileRequest request = NewFileRequest(file, majorFunction, IRP_BUFFERED_IO | IRP_SYNCHRONOUS_API);
    request.DataFlags |= FLTFL_CALLBACK_DATA_SYSTEM_BUFFER;
    return request;
}
}

NTSTATUS SetInformation(PFILE_OBJECT file, FILE_INFORMATION_CLASS kind, void* buffer, ULONG length)
{
    RequireIrql(PASSIVE_LEVEL, "SetInformation");
    if (length < LeastLengthToSet(kind))
    {
        return STATUS_INFO_LENGTH_MISMATCH;
    }
    const ACCESS_MASK needed = AccessToSet(kind);
    if (!MayAny(file, needed))
    {
        return STATUS_ACCESS_DENIED;
    }
    const SystemBuffer system(length);
    const NTSTATUS copied = GuardedCopy(system.Memory.get(), buffer, length);
    if (!NT_SUCCESS(copied))
    {
        return copied;
    }
    FileRequest request = NewBufferedRequest(file, IRP_MJ_SET_INFORMATION);
    auto& parameters = request.Parameters.Parameters.SetFileInformation;
    parameters.Length = length;
    parameters.FileInformationClass = kind;
    parameters.InfoBuffer = system.Memory.get();
    if (kind == FileRenameInformation || kind == FileLinkInformation)
    {
        parameters.ReplaceIfExists = *reinterpret_cast<const BOOLEAN*>(system.Memory.get());
    }
    IO_STATUS_BLOCK status{};
    return SendFileRequest(request, &status);
}

NTSTATUS QueryInformation(PFILE_OBJECT file, FILE_INFORMATION_CLASS kind, void* buffer, ULONG length, ULONG_PTR* used)
{
    RequireIrql(PASSIVE_LEVEL, "QueryInformation");
    const SystemBuffer system(length);
    FileRequest request = NewBufferedRequest(file, IRP_MJ_QUERY_INFORMATION);
    auto& parameters = request.Parameters.Parameters.QueryFileInformation;
    parameters.Length = length;
    parameters.FileInformationClass = kind;
    parameters.InfoBuffer = system.Memory.get();
    IO_STATUS_BLOCK status{};
    NTSTATUS result = SendFileRequest(request, &status);
    if (!NT_ERROR(result) && status.Information <= length)
    {
        // An overflow warning comes with as much as fitted.
        const NTSTATUS copied = GuardedCopy(buffer, system.Memory.get(), status.Information);
        result = NT_SUCCESS(copied) ? result : copied;
    }
    if (used != nullptr)
    {
        *used = status.Information;
    }
    return result;
}

NTSTATUS QueryDirectory(PFILE_OBJECT file, FILE_INFORMATION_CLASS kind, bool single, bool restart, WideView pattern,
    void* buffer, ULONG length, ULONG_PTR* used)
{
    RequireIrql(PASSIVE_LEVEL, "QueryDirectory");
    if (used != nullptr)
    {
        *used = 0;
    }
    if (!MayAny(file, FILE_LIST_DIRECTORY))
    {
        return STATUS_ACCESS_DENIED;
    }
    UNICODE_STRING name = Counted(pattern);
    FileRequest request = NewFileRequest(file, IRP_MJ_DIRECTORY_CONTROL, IRP_SYNCHRONOUS_API);
    request.Parameters.MinorFunction = IRP_MN_QUERY_DIRECTORY;
    request.Parameters.OperationFlags =
        static_cast<UCHAR>((single ? DirectorySingleEntry : 0) | (restart ? DirectoryRestartScan : 0));
    auto& parameters = request.Parameters.Parameters.QueryDirectory;
    parameters.Length = length;
    parameters.FileName = pattern.empty() ? nullptr : &name;
    parameters.FileInformationClass = kind;
    parameters.DirectoryBuffer = buffer;
    IO_STATUS_BLOCK status{};
    const NTSTATUS result = SendFileRequest(request, &status);
    if (used != nullptr)
    {
        *used = status.Information;
    }
    return result;
}

NTSTATUS FlushFile(PFILE_OBJECT file)
{
    RequireIrql(PASSIVE_LEVEL, "FlushFile");
    if (!MayAny(file, FILE_WRITE_DATA | FILE_APPEND_DATA))
    {
        return STATUS_ACCESS_DENIED;
    }
    FileRequest request = NewFileRequest(file, IRP_MJ_FLUSH_BUFFERS, IRP_SYNCHRONOUS_API);
    IO_STATUS_BLOCK status{};
    return SendFileRequest(request, &status);
}

NTSTATUS SetEndOfFile(PFILE_OBJECT file, LONGLONG endOfFile)
{
    FILE_END_OF_FILE_INFORMATION information;
    information.EndOfFile.QuadPart = endOfFile;
    return SetInformation(file, FileEndOfFileInformation, &information, sizeof information);
}
}
