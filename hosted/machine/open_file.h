// A file that a program has open, used as a program uses it.
#pragma once

#include "hosted/io/file.h"
#include "hosted/machine/mapped_view.h"

#include <atomic>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace hosted
{
struct ProgramState;
struct OpenFileState;

struct DirectoryEntry
{
    std::string Name;      // UTF-8
    std::string ShortName; // empty when there is none
    LONGLONG Size;
    ULONG Attributes;
};

// Moves, does not copy. Every routine runs as the program, with buffers in that program's memory, and keeps its status
// for Status(). On a file that is not open they answer STATUS_INVALID_HANDLE. Several threads may use one file.
class ProgramFile
{
public:
    // The result of an open: the status, and the open file when it succeeded.
    ProgramFile(std::shared_ptr<ProgramState> owner, NTSTATUS status, ULONG_PTR information, PFILE_OBJECT file);
    ProgramFile(ProgramFile&& other) noexcept;
    ProgramFile& operator=(ProgramFile&& other) noexcept;
    ~ProgramFile();

    // Of the last operation, at first of the open.
    NTSTATUS Status() const { return status_; }
    // Bytes transferred; after the open FILE_OPENED, FILE_CREATED, ...
    ULONG_PTR Information() const { return information_; }
    bool IsOpen() const;
    PFILE_OBJECT Object() const;

    NTSTATUS Write(std::string_view bytes, LONGLONG offset = 0);
    // What was read; empty when it failed or nothing is there.
    std::string Read(LONGLONG offset, ULONG length);
    // From the beginning to the end, by reads of up to 64 KiB (of `step` bytes).
    std::string ReadAll(ULONG step = 65536);
    NTSTATUS Flush();
    NTSTATUS SetEndOfFile(LONGLONG size);
    // -1 when the query fails.
    LONGLONG Size();
    // As FILE_OPEN_BY_FILE_ID takes it; 0 when the query fails.
    ULONGLONG FileId();
    // To another path on the volume ("C:\b", or just "b" in the same folder).
    NTSTATUS Rename(WideView newPath, bool replace = false);
    // Marks (or no longer marks) the file to go at its last close.
    NTSTATUS Delete(bool really = true);
    NTSTATUS SetInformation(FILE_INFORMATION_CLASS kind, std::string_view bytes);
    // The bytes of the answer.
    std::string QueryInformation(FILE_INFORMATION_CLASS kind, ULONG length);
    // For an open directory.
    std::vector<DirectoryEntry> List(WideView pattern = {});
    // A view of the whole file, however large it becomes. It keeps the file object alive, not open.
    MappedView MapView();
    NTSTATUS Close();

private:
    NTSTATUS Keep(NTSTATUS status, ULONG_PTR information = 0);
    template <class Operation>
    NTSTATUS Run(Operation&& operation);

    std::shared_ptr<OpenFileState> state_;
    std::atomic<NTSTATUS> status_;
    std::atomic<ULONG_PTR> information_;
};
}
