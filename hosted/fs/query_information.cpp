// What a program asks of an open file.
#include "hosted/fs/disk_file_system.h"

#include <cstring>

namespace host
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
NTSTATUS Deliver(
    FLT_IO_PARAMETER_BLOCK& operation, const std::string& bytes, size_t fixed, ULONG_PTR* information)
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

FILE_BASIC_INFORMATION BasicOf(const StoredNode& info)
{
    FILE_BASIC_INFORMATION basic = {};
    basic.CreationTime = Large(info.CreationTime);
    basic.LastAccessTime = Large(info.LastAccessTime);
    basic.LastWriteTime = Large(info.LastWriteTime);
    basic.ChangeTime = Large(info.ChangeTime);
    basic.FileAttributes = info.Attributes != 0 ? info.Attributes : FILE_ATTRIBUTE_NORMAL;
    return basic;
}

FILE_STANDARD_INFORMATION StandardOf(const ControlBlock& block)
{
    const Node& node = *block.Owner;
    const LONGLONG size = block.Size();
    FILE_STANDARD_INFORMATION standard = {};
    standard.AllocationSize = Large(AllocationFor(size));
    standard.EndOfFile = Large(size);
    standard.DeletePending = node.DeletePending || block.Record->DeletePending || node.Deleted;
    standard.NumberOfLinks = standard.DeletePending ? 0 : 1;
    standard.Directory = node.Info.Directory && block.Record->Name.empty();
    return standard;
}

void AddName(RecordWriter& record, const WideString& path)
{
    record.Add(static_cast<ULONG>(path.size() * sizeof(WCHAR)));
    record.AddText(path);
}

std::string StreamsOf(const Node& node)
{
    RecordWriter record;
    size_t previous = 0;
    bool first = true;
    for (auto& [name, stream] : node.Streams)
    {
        if (node.Info.Directory && name.empty())
        {
            continue;
        }
        record.Pad(sizeof(LONGLONG));
        if (!first)
        {
            record.Patch(previous, static_cast<ULONG>(record.Bytes().size() - previous));
        }
        first = false;
        previous = record.Bytes().size();
        const WideString shown = L":" + stream->Name + L":$DATA";
        record.Add(ULONG(0));
        record.Add(static_cast<ULONG>(shown.size() * sizeof(WCHAR)));
        record.Add(stream->CurrentSize());
        record.Add(AllocationFor(stream->CurrentSize()));
        record.AddText(shown);
    }
    return record.Bytes();
}
}

NTSTATUS DiskFileSystem::QueryInformation(FLT_IO_PARAMETER_BLOCK& operation, ULONG_PTR* information)
{
    const PFILE_OBJECT file = operation.TargetFileObject;
    const ControlBlock* block = BlockOf(file);
    if (block == nullptr || block->Owner == volumeNode_)
    {
        return STATUS_INVALID_PARAMETER;
    }
    std::lock_guard guard(tree_);
    const Node& node = *block->Owner;
    const WideString& stream = block->Record->Name;
    const WideString path = PathOf(&node) + (stream.empty() ? WideString() : L":" + stream);
    const LONGLONG position = __atomic_load_n(&file->CurrentByteOffset.QuadPart, __ATOMIC_RELAXED);
    RecordWriter record;
    size_t fixed = 0; // the part before the characters of a name
    switch (operation.Parameters.QueryFileInformation.FileInformationClass)
    {
    case FileBasicInformation:
        record.Add(BasicOf(node.Info));
        fixed = sizeof(FILE_BASIC_INFORMATION);
        break;
    case FileStandardInformation:
        record.Add(StandardOf(*block));
        fixed = sizeof(FILE_STANDARD_INFORMATION);
        break;
    case FileInternalInformation:
        record.Add(node.Info.Id);
        fixed = sizeof(node.Info.Id);
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
        record.Add(BasicOf(node.Info));
        record.Add(StandardOf(*block));
        record.Add(node.Info.Id);
        record.Add(ULONG(0)); // extended attributes
        record.Add(OpenOf(file) != nullptr ? OpenOf(file)->Access : ACCESS_MASK(0));
        record.Add(position);
        record.Add(ULONG(0)); // mode and alignment belong to the I/O manager
        record.Add(ULONG(0));
        fixed = record.Bytes().size() + sizeof(ULONG);
        AddName(record, path);
        break;
    case FileStreamInformation:
        return Deliver(operation, StreamsOf(node), 0, information);
    default:
        return STATUS_INVALID_INFO_CLASS;
    }
    return Deliver(operation, record.Bytes(), fixed, information);
}
}
