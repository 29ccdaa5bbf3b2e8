// Reading and writing files, for programs and for the cache manager.
#include "hosted/io/file_object.h"

#include "hosted/io/mdl.h"
#include "hosted/ke/bug_check.h"
#include "hosted/ke/irql.h"

namespace hosted
{
namespace
{
// A write at this offset goes to the end of the file.
constexpr LONGLONG WriteToEndOfFile = -1;

NTSTATUS Fail(NTSTATUS status, IO_STATUS_BLOCK* result)
{
    *result = {};
    result->Status = status;
    return status;
}

void SetTransfer(FileRequest* request, LONGLONG offset, void* buffer, ULONG length, PMDL mdl)
{
    FLT_PARAMETERS& parameters = request->Parameters.Parameters;
    if (request->Parameters.MajorFunction == IRP_MJ_READ)
    {
        parameters.Read.Length = length;
        parameters.Read.ByteOffset.QuadPart = offset;
        parameters.Read.ReadBuffer = buffer;
        parameters.Read.MdlAddress = mdl;
    }
    else
    {
        parameters.Write.Length = length;
        parameters.Write.ByteOffset.QuadPart = offset;
        parameters.Write.WriteBuffer = buffer;
        parameters.Write.MdlAddress = mdl;
    }
}

// Transfers past the cache move whole sectors.
NTSTATUS CheckAlignment(const Volume& volume, LONGLONG offset, ULONG length)
{
    const bool atEnd = offset == WriteToEndOfFile;
    const bool aligned = length % volume.SectorSize == 0 && (atEnd || offset % volume.SectorSize == 0);
    return aligned ? STATUS_SUCCESS : STATUS_INVALID_PARAMETER;
}

NTSTATUS Transfer(
    PFILE_OBJECT file, UCHAR majorFunction, LONGLONG offset, void* buffer, ULONG length, IO_STATUS_BLOCK* status)
{
    RequireIrql(PASSIVE_LEVEL, "reading or writing a file");
    const bool write = majorFunction == IRP_MJ_WRITE;
    Volume* volume = VolumeOfFile(file);
    if (volume == nullptr)
    {
        return Fail(STATUS_INVALID_DEVICE_REQUEST, status);
    }
    if (offset < 0 && !(write && offset == WriteToEndOfFile))
    {
        return Fail(STATUS_INVALID_PARAMETER, status);
    }
    const bool cached = !(file->Flags & FO_NO_INTERMEDIATE_BUFFERING);
    if (!cached && !NT_SUCCESS(CheckAlignment(*volume, offset, length)))
    {
        return Fail(STATUS_INVALID_PARAMETER, status);
    }
    if (cached && volume->Files->FastIoPossible(file, write, length))
    {
        FileRequest fast = NewFileRequest(file, majorFunction, 0);
        fast.DataFlags = FLTFL_CALLBACK_DATA_FAST_IO_OPERATION;
        SetTransfer(&fast, offset, buffer, length, nullptr);
        const NTSTATUS result = SendFileRequest(fast, status);
        if (result != STATUS_FLT_DISALLOW_FAST_IO)
        {
            return result;
        }
    }
    ULONG flags = write ? IRP_WRITE_OPERATION : IRP_READ_OPERATION;
    flags |= cached ? 0 : IRP_NOCACHE;
    flags |= file->Flags & FO_SYNCHRONOUS_IO ? IRP_SYNCHRONOUS_API : 0;
    FileRequest request = NewFileRequest(file, majorFunction, flags);
    SetTransfer(&request, offset, buffer, length, nullptr);
    return SendFileRequest(request, status);
}

NTSTATUS Page(
    PFILE_OBJECT file, UCHAR majorFunction, LONGLONG offset, void* pages, ULONG length, IO_STATUS_BLOCK* status)
{
    RequireIrql(APC_LEVEL, "paging I/O");
    if (BYTE_OFFSET(pages) != 0 || BYTE_OFFSET(offset) != 0 || BYTE_OFFSET(length) != 0 || length == 0 || offset < 0)
    {
        BugCheck("PAGING_IO_ALIGNMENT", "%u bytes at offset %lld into %p are not whole pages", length, offset, pages);
    }
    const bool read = majorFunction == IRP_MJ_READ;
    const PMDL mdl = LockPages(pages, length, read ? LockPurpose::DeviceFillsPages : LockPurpose::DeviceTakesPages);
    FileRequest request = NewFileRequest(file, majorFunction, IRP_PAGING_IO | IRP_NOCACHE | IRP_SYNCHRONOUS_PAGING_IO);
    request.Mode = KernelMode;
    SetTransfer(&request, offset, MmGetMdlVirtualAddress(mdl), length, mdl);
    const NTSTATUS result = SendFileRequest(request, status);
    ReleaseMdl(mdl);
    return result;
}
}

NTSTATUS ReadFile(PFILE_OBJECT file, LONGLONG offset, void* buffer, ULONG length, IO_STATUS_BLOCK* status)
{
    const FileState* state = StateOf(file);
    if (state != nullptr && !(state->Granted & FILE_READ_DATA))
    {
        return Fail(STATUS_ACCESS_DENIED, status);
    }
    return Transfer(file, IRP_MJ_READ, offset, buffer, length, status);
}

NTSTATUS WriteFile(PFILE_OBJECT file, LONGLONG offset, const void* buffer, ULONG length, IO_STATUS_BLOCK* status)
{
    const FileState* state = StateOf(file);
    if (state != nullptr && !(state->Granted & FILE_WRITE_DATA))
    {
        if (!(state->Granted & FILE_APPEND_DATA))
        {
            return Fail(STATUS_ACCESS_DENIED, status);
        }
        offset = WriteToEndOfFile;
    }
    return Transfer(file, IRP_MJ_WRITE, offset, const_cast<void*>(buffer), length, status);
}

NTSTATUS PagingRead(PFILE_OBJECT file, LONGLONG offset, void* pages, ULONG length, IO_STATUS_BLOCK* status)
{
    return Page(file, IRP_MJ_READ, offset, pages, length, status);
}

NTSTATUS PagingWrite(PFILE_OBJECT file, LONGLONG offset, void* pages, ULONG length, IO_STATUS_BLOCK* status)
{
    return Page(file, IRP_MJ_WRITE, offset, pages, length, status);
}
}
