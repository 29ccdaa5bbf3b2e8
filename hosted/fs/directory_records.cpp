#include "hosted/fs/directory_records.h"

#include <cstring>

namespace hosted
{
namespace
{
constexpr size_t RecordAlignment = sizeof(LONGLONG);

// The record up to the name. FILE_ID_BOTH_DIR_INFORMATION begins as the shorter layouts do, but for that of names
// alone.
std::string Head(const ListedFile& file, FILE_INFORMATION_CLASS kind)
{
    const ULONG nameBytes = static_cast<ULONG>(file.Name.size() * sizeof(WCHAR));
    if (kind == FileNamesInformation)
    {
        std::string bytes(DirectoryRecordHead(kind), '\0');
        std::memcpy(bytes.data() + 2 * sizeof(ULONG), &nameBytes, sizeof(nameBytes));
        return bytes;
    }
    FILE_ID_BOTH_DIR_INFORMATION record;
    std::memset(&record, 0, sizeof(record));
    const FileFacts& facts = file.Facts;
    record.CreationTime.QuadPart = facts.CreationTime;
    record.LastAccessTime.QuadPart = facts.LastAccessTime;
    record.LastWriteTime.QuadPart = facts.LastWriteTime;
    record.ChangeTime.QuadPart = facts.ChangeTime;
    record.EndOfFile.QuadPart = facts.Size;
    record.AllocationSize.QuadPart = AllocationFor(facts.Size);
    record.FileAttributes = ToldAttributes(facts);
    record.FileNameLength = nameBytes;
    record.ShortNameLength = static_cast<CCHAR>(file.ShortName.size() * sizeof(WCHAR));
    file.ShortName.copy(record.ShortName, std::size(record.ShortName));
    record.FileId.QuadPart = static_cast<LONGLONG>(facts.Id);
    return std::string(reinterpret_cast<const char*>(&record), DirectoryRecordHead(kind));
}
}

ULONG DirectoryRecordHead(FILE_INFORMATION_CLASS kind)
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

std::string DirectoryRecord(const ListedFile& file, FILE_INFORMATION_CLASS kind)
{
    std::string record = Head(file, kind);
    record.append(reinterpret_cast<const char*>(file.Name.data()), file.Name.size() * sizeof(WCHAR));
    return record;
}

bool AppendDirectoryRecord(std::string* answer, size_t* last, const std::string& record, size_t room)
{
    const size_t start = (answer->size() + RecordAlignment - 1) / RecordAlignment * RecordAlignment;
    if (start + record.size() > room)
    {
        return false;
    }
    if (!answer->empty())
    {
        const ULONG distance = static_cast<ULONG>(start - *last);
        std::memcpy(answer->data() + *last, &distance, sizeof(distance));
    }
    answer->resize(start);
    answer->append(record);
    *last = start;
    return true;
}
}
