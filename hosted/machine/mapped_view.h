// A mapped view of a file: reads and writes of memory, no requests.
#pragma once

#include "hosted/cc/cache.h"

#include <memory>
#include <string>
#include <string_view>

namespace hosted
{
struct ProgramState;

// STATUS_IN_PAGE_ERROR past the page that holds the end of the file, as the exception that a program would get.
// Unmapped when it goes or the program exits.
class MappedView
{
public:
    // The view references the file object and runs as the owner. A file object that cannot be mapped gives a view whose
    // operations fail with STATUS_INVALID_HANDLE.
    MappedView(const std::shared_ptr<ProgramState>& owner, PFILE_OBJECT file);
    MappedView(MappedView&&) noexcept = default;
    MappedView& operator=(MappedView&&) = delete;
    ~MappedView();

    NTSTATUS Status() const { return status_; }
    std::string Read(LONGLONG offset, ULONG length);
    NTSTATUS Write(std::string_view bytes, LONGLONG offset = 0);
    void Unmap();

private:
    struct State;
    std::shared_ptr<State> state_;
    NTSTATUS status_ = STATUS_SUCCESS;
};
}
