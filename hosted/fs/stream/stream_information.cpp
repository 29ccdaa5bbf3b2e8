// What a program asks of an open file, and the sizes that it sets.
#include "hosted/fs/stream/stream_file_system.h"

#include <cstring>

namespace hosted
{
namespace
{
// Collects a record piece by piece, as its fields follow each other without gaps.
class RecordWriter
{
public:
    template <class Piece>
    void Add(const Piece& piece)
    {
        bytes_.append(reinterpret_cast<const char*>(&piece), sizeof(piece));
    }
    void AddText(WideView text)
    {
        bytes_.append(reinterpret_cast<const char*>(text.data()), text.size() * sizeof(WCHAR));
    }
    void Pad(size_t alignment) { bytes_.resize((bytes_.size() + alignment - 1) / alignment * alignment); }
    void Patch(size_t at, ULONG value) { std::memcpy(bytes_.data() + at, &value, sizeof(value)); }
    const std::string& Bytes() const { return bytes_; }

private:
    std::string bytes_;
};

// Copies what fits. Below `fixed` bytes nothing is of use.
NTSTATUS Deliver(FLT_IO_PARAMETER_BLOCK& operation, const std::string& bytes, size_t fixed, ULONG_PTR* information)
{
    const auto& parameters = operation.Parameters.QueryFileInformation;
    if (parameters.Length < fixed)
    {
        return STATUS_INFO_LENGTH_MISMATCH;
    }
    *information = std::min<size_t>(parameters.Length, bytes.size());
    std::memcpy(parameters.InfoBuffer, bytes.data(), *information);
    return *information < bytes.size() ? STATUS_BUFFER_OVERFLOW : STATUS_SUCCESS;
}

LARGE_INTEGER Large(LONGLONG value)
{
    LARGE_INTEGER large;
    large.QuadPart = value;
    return large;
}

FILE_BASIC_INFORMATION BasicOf(const FileFacts& facts)
{
    FILE_BASIC_INFORMATION basic = {};
    basic.CreationTime = Large(facts.CreationTime);
    basic.LastAccessTime = Large(facts.LastAccessTime);
    basic.LastWriteTime = Large(facts.LastWriteTime);
    basic.ChangeTime = Large(facts.ChangeTime);
    basic.FileAttributes = ToldAttributes(facts);
    return basic;
}

FILE_STANDARD_INFORMATION StandardOf(const FileFacts& facts)
{
    FILE_STANDARD_INFORMATION standard = {};
    standard.AllocationSize = Large(AllocationFor(facts.Size));
    standard.EndOfFile = Large(facts.Size);
    standard.DeletePending = facts.DeletePending;
    standard.NumberOfLinks = facts.DeletePending ? 0 : facts.Links;
    standard.Directory = facts.Directory;
    return standard;
}

void AddName(RecordWriter& record, const WideString& path)
{
    record.Add(static_cast<ULONG>(path.size() * sizeof(WCHAR)));
    record.AddText(path);
}

std::string StreamRecords(const std::vector<StoredStream>& streams)
{
    RecordWriter record;
    size_t previous = 0;
    for (const StoredStream& stream : streams)
    {
        record.Pad(sizeof(LONGLONG));
        if (!record.Bytes().empty())
        {
            record.Patch(previous, static_cast<ULONG>(record.Bytes().size() - previous));
        }
        previous = record.Bytes().size();
        const WideString shown = L":" + stream.Name + L":$DATA";
        record.Add(ULONG(0));
        record.Add(static_cast<ULONG>(shown.size() * sizeof(WCHAR)));
        record.Add(stream.Size);
        record.Add(AllocationFor(stream.Size));
        record.AddText(shown);
    }
    return record.Bytes();
}
}

NTSTATUS StreamFileSystem::QueryInformation(FLT_IO_PARAMETER_BLOCK& operation, ULONG_PTR* information)
{
    const PFILE_OBJECT file = operation.TargetFileObject;
    const ControlBlock* block = BlockOf(file);
    if (block == nullptr || block->Kind == StreamKind::Volume)
    {
        return STATUS_INVALID_PARAMETER;
    }
    std::lock_guard guard(tree_);
    FileFacts facts;
    WideString path;
    NTSTATUS status = Describe(file, &facts, &path);
    if (!NT_SUCCESS(status))
    {
        return status;
    }
    const LONGLONG position = __atomic_load_n(&file->CurrentByteOffset.QuadPart, __ATOMIC_RELAXED);
    RecordWriter record;
    size_t fixed = 0; // the part before the characters of a name
    switch (operation.Parameters.QueryFileInformation.FileInformationClass)
    {
    case FileBasicInformation:
        record.Add(BasicOf(facts));
        fixed = sizeof(FILE_BASIC_INFORMATION);
        break;
    case FileStandardInformation:
        record.Add(StandardOf(facts));
        fixed = sizeof(FILE_STANDARD_INFORMATION);
        break;
    case FileInternalInformation:
        record.Add(facts.Id);
        fixed = sizeof(facts.Id);
        break;
    case FilePositionInformation:
        record.Add(position);
        fixed = sizeof(position);
        break;
    case FileNameInformation:
        AddName(record, path);
        fixed = sizeof(ULONG);
        break;
    case FileAllInformation:
        record.Add(BasicOf(facts));
        record.Add(StandardOf(facts));
        record.Add(facts.Id);
        record.Add(ULONG(0)); // extended attributes
        record.Add(OpenOf(file) != nullptr ? OpenOf(file)->Access : ACCESS_MASK(0));
        record.Add(position);
        record.Add(ULONG(0)); // mode and alignment belong to the I/O manager
        record.Add(ULONG(0));
        fixed = record.Bytes().size() + sizeof(ULONG);
        AddName(record, path);
        break;
    case FileStreamInformation:
        return Deliver(operation, StreamRecords(StreamsOf(*block)), 0, information);
    default:
        return STATUS_INVALID_INFO_CLASS;
    }
    return Deliver(operation, record.Bytes(), fixed, information);
}

NTSTATUS StreamFileSystem::SetInformation(FLT_IO_PARAMETER_BLOCK& operation)
{
    const PFILE_OBJECT file = operation.TargetFileObject;
    ControlBlock* block = BlockOf(file);
    if (block == nullptr || block->Kind == StreamKind::Volume)
    {
        return STATUS_INVALID_PARAMETER;
    }
    const auto& parameters = operation.Parameters.SetFileInformation;
    const FILE_INFORMATION_CLASS kind = parameters.FileInformationClass;
    if (kind != FileEndOfFileInformation && kind != FileAllocationInformation &&
        kind != FileValidDataLengthInformation && kind != FilePositionInformation)
    {
        return SetOther(operation);
    }
    LARGE_INTEGER number;
    if (!TakeRecord(operation, &number))
    {
        return STATUS_INFO_LENGTH_MISMATCH;
    }
    const LONGLONG value = number.QuadPart;
    switch (kind)
    {
    case FileEndOfFileInformation:
        // Advance-only changes come from a lazy writer that keeps the valid-data length, which is the size here.
        return parameters.AdvanceOnly ? STATUS_SUCCESS : SetEndOfFile(*block, value);
    case FileAllocationInformation:
        // Room is never kept in advance, but what is given up takes the data with it.
        return value >= 0 && value >= block->Size() && block->Map != nullptr ? STATUS_SUCCESS
                                                                             : SetEndOfFile(*block, value);
    case FileValidDataLengthInformation:
        return value >= 0 && value <= block->Size() ? STATUS_SUCCESS : STATUS_INVALID_PARAMETER;
    default:
        __atomic_store_n(&file->CurrentByteOffset.QuadPart, value, __ATOMIC_RELAXED);
        return value >= 0 ? STATUS_SUCCESS : STATUS_INVALID_PARAMETER;
    }
}

NTSTATUS StreamFileSystem::SetEndOfFile(ControlBlock& block, LONGLONG size)
{
    if (block.Map == nullptr || size < 0)
    {
        return STATUS_INVALID_PARAMETER;
    }
    NTSTATUS status;
    {
        std::unique_lock main(block.Main);
        status = Resize(block, size, !strictEndOfFile_);
    }
    if (NT_SUCCESS(status))
    {
        Written(block);
    }
    return status;
}
}
