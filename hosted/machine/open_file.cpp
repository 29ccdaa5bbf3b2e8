#include "hosted/machine/open_file.h"

#include "hosted/machine/program_state.h"

#include <cstring>
#include <mutex>

namespace hosted
{
namespace
{
constexpr UCHAR UnreadByte = 0xEE;

// A structure as the system left it in a program's buffer.
template <class Structure>
Structure Decode(const std::string& bytes)
{
    Structure structure{};
    std::memcpy(static_cast<void*>(&structure), bytes.data(), std::min(bytes.size(), sizeof(structure)));
    return structure;
}

template <class Structure>
std::string_view Encode(const Structure& structure)
{
    return {reinterpret_cast<const char*>(&structure), sizeof(structure)};
}

std::string NarrowBytes(const char* text, size_t bytes)
{
    WideString wide(bytes / sizeof(WCHAR), L'\0');
    std::memcpy(wide.data(), text, wide.size() * sizeof(WCHAR));
    return Narrow(wide);
}

DirectoryEntry DecodeEntry(const char* at)
{
    FILE_BOTH_DIR_INFORMATION entry;
    constexpr size_t fixed = offsetof(FILE_BOTH_DIR_INFORMATION, FileName);
    std::memcpy(static_cast<void*>(&entry), at, fixed);
    return {NarrowBytes(at + fixed, entry.FileNameLength),
        NarrowBytes(reinterpret_cast<const char*>(entry.ShortName), static_cast<UCHAR>(entry.ShortNameLength)),
        entry.EndOfFile.QuadPart, entry.FileAttributes};
}

void DecodeEntries(const std::string& bytes, std::vector<DirectoryEntry>* entries)
{
    size_t at = 0;
    ULONG next = 0;
    do
    {
        entries->push_back(DecodeEntry(bytes.data() + at));
        std::memcpy(&next, bytes.data() + at, sizeof(next));
        at += next;
    } while (next != 0);
}
}

// The open file itself; closed by whoever comes first: the program's own close, its exit, the last user.
struct OpenFileState final : ProgramResource
{
    std::shared_ptr<ProgramState> Owner;
    std::atomic<PFILE_OBJECT> Object{nullptr};

    ~OpenFileState() override { OpenFileState::Close(); }

    void Close() override
    {
        PFILE_OBJECT file = Object.exchange(nullptr);
        if (file != nullptr)
        {
            const AttachedProcess attached(Owner->Running);
            CloseFile(file);
        }
    }
};

ProgramFile::ProgramFile(std::shared_ptr<ProgramState> owner, NTSTATUS status, ULONG_PTR information, PFILE_OBJECT file)
    : state_(std::make_shared<OpenFileState>()), status_(status), information_(information)
{
    state_->Owner = std::move(owner);
    state_->Object = file;
    if (file != nullptr)
    {
        AddResource(*state_->Owner, state_);
    }
}

ProgramFile::ProgramFile(ProgramFile&& other) noexcept
    : state_(std::move(other.state_)), status_(other.status_.load()), information_(other.information_.load())
{
}

ProgramFile& ProgramFile::operator=(ProgramFile&& other) noexcept
{
    if (state_ != nullptr && state_ != other.state_)
    {
        state_->Close();
    }
    state_ = std::move(other.state_);
    status_ = other.status_.load();
    information_ = other.information_.load();
    return *this;
}

ProgramFile::~ProgramFile()
{
    if (state_ != nullptr)
    {
        state_->Close();
    }
}

bool ProgramFile::IsOpen() const
{
    return Object() != nullptr;
}

PFILE_OBJECT ProgramFile::Object() const
{
    return state_ == nullptr ? nullptr : state_->Object.load();
}

NTSTATUS ProgramFile::Keep(NTSTATUS status, ULONG_PTR information)
{
    status_ = status;
    information_ = information;
    return status;
}

template <class Operation>
NTSTATUS ProgramFile::Run(Operation&& operation)
{
    PFILE_OBJECT file = Object();
    if (file == nullptr)
    {
        return Keep(STATUS_INVALID_HANDLE);
    }
    const AttachedProcess attached(RunningProcess(*state_->Owner));
    ULONG_PTR information = 0;
    const NTSTATUS status = operation(file, information);
    return Keep(status, information);
}

NTSTATUS ProgramFile::Write(std::string_view bytes, LONGLONG offset)
{
    return Run(
        [&](PFILE_OBJECT file, ULONG_PTR& written)
        {
            UserBuffer buffer(state_->Owner->Buffers, bytes.size(), 0);
            buffer.Set(bytes);
            IO_STATUS_BLOCK status{};
            const NTSTATUS result =
                WriteFile(file, offset, buffer.Address(), static_cast<ULONG>(bytes.size()), &status);
            written = status.Information;
            return result;
        });
}

std::string ProgramFile::Read(LONGLONG offset, ULONG length)
{
    std::string bytes;
    Run(
        [&](PFILE_OBJECT file, ULONG_PTR& read)
        {
            UserBuffer buffer(state_->Owner->Buffers, length, UnreadByte);
            IO_STATUS_BLOCK status{};
            const NTSTATUS result = ReadFile(file, offset, buffer.Address(), length, &status);
            read = status.Information;
            if (!NT_ERROR(result))
            {
                bytes = buffer.Content(read);
            }
            return result;
        });
    return bytes;
}

std::string ProgramFile::ReadAll(ULONG step)
{
    std::string all;
    for (;;)
    {
        const std::string part = Read(static_cast<LONGLONG>(all.size()), step);
        all += part;
        if (Status() == STATUS_END_OF_FILE)
        {
            Keep(STATUS_SUCCESS, all.size());
            return all;
        }
        if (part.empty() || !NT_SUCCESS(Status()))
        {
            return all;
        }
    }
}

NTSTATUS ProgramFile::Flush()
{
    return Run([](PFILE_OBJECT file, ULONG_PTR&) { return FlushFile(file); });
}

NTSTATUS ProgramFile::SetEndOfFile(LONGLONG size)
{
    return Run([size](PFILE_OBJECT file, ULONG_PTR&) { return hosted::SetEndOfFile(file, size); });
}

LONGLONG ProgramFile::Size()
{
    const std::string answer = QueryInformation(FileStandardInformation, sizeof(FILE_STANDARD_INFORMATION));
    return NT_SUCCESS(Status()) ? Decode<FILE_STANDARD_INFORMATION>(answer).EndOfFile.QuadPart : -1;
}

ULONGLONG ProgramFile::FileId()
{
    const std::string answer = QueryInformation(FileInternalInformation, sizeof(FILE_INTERNAL_INFORMATION));
    return NT_SUCCESS(Status()) ? static_cast<ULONGLONG>(Decode<FILE_INTERNAL_INFORMATION>(answer).IndexNumber.QuadPart)
                                : 0;
}

NTSTATUS ProgramFile::Rename(WideView newPath, bool replace)
{
    const bool bare = newPath.find(L'\\') == WideView::npos;
    const WideString target = bare ? WideString(newPath) : NtPath(newPath);
    FILE_RENAME_INFORMATION rename{};
    rename.ReplaceIfExists = replace ? TRUE : FALSE;
    rename.FileNameLength = static_cast<ULONG>(target.size() * sizeof(WCHAR));
    constexpr size_t fixed = offsetof(FILE_RENAME_INFORMATION, FileName);
    std::string bytes(reinterpret_cast<const char*>(&rename), fixed);
    bytes.append(reinterpret_cast<const char*>(target.data()), rename.FileNameLength);
    bytes.resize(std::max(bytes.size(), sizeof(rename)));
    return SetInformation(FileRenameInformation, bytes);
}

NTSTATUS ProgramFile::Delete(bool really)
{
    const FILE_DISPOSITION_INFORMATION disposition{static_cast<BOOLEAN>(really ? TRUE : FALSE)};
    return SetInformation(FileDispositionInformation, Encode(disposition));
}

NTSTATUS ProgramFile::SetInformation(FILE_INFORMATION_CLASS kind, std::string_view bytes)
{
    return Run(
        [&](PFILE_OBJECT file, ULONG_PTR&)
        {
            UserBuffer buffer(state_->Owner->Buffers, bytes.size(), 0);
            buffer.Set(bytes);
            return hosted::SetInformation(file, kind, buffer.Address(), static_cast<ULONG>(bytes.size()));
        });
}

std::string ProgramFile::QueryInformation(FILE_INFORMATION_CLASS kind, ULONG length)
{
    std::string bytes;
    Run(
        [&](PFILE_OBJECT file, ULONG_PTR& used)
        {
            UserBuffer buffer(state_->Owner->Buffers, length, UnreadByte);
            const NTSTATUS status = hosted::QueryInformation(file, kind, buffer.Address(), length, &used);
            if (!NT_ERROR(status))
            {
                bytes = buffer.Content(used);
            }
            return status;
        });
    return bytes;
}

std::vector<DirectoryEntry> ProgramFile::List(WideView pattern)
{
    constexpr ULONG length = 4096;
    std::vector<DirectoryEntry> entries;
    bool restart = true;
    const auto next = [&](PFILE_OBJECT file, ULONG_PTR& used)
    {
        UserBuffer buffer(state_->Owner->Buffers, length, UnreadByte);
        const NTSTATUS status = QueryDirectory(
            file, FileBothDirectoryInformation, false, restart, pattern, buffer.Address(), length, &used);
        if (NT_SUCCESS(status) && used != 0)
        {
            DecodeEntries(buffer.Content(used), &entries);
        }
        return status;
    };
    while (NT_SUCCESS(Run(next)))
    {
        restart = false;
    }
    if (Status() == STATUS_NO_MORE_FILES)
    {
        Keep(STATUS_SUCCESS, entries.size());
    }
    return entries;
}

MappedView ProgramFile::MapView()
{
    MappedView view(state_->Owner, Object());
    Keep(view.Status());
    return view;
}

NTSTATUS ProgramFile::Close()
{
    if (!IsOpen())
    {
        return Keep(STATUS_INVALID_HANDLE);
    }
    state_->Close();
    return Keep(STATUS_SUCCESS);
}
}
