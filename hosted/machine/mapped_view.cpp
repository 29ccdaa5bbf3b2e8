#include "hosted/machine/mapped_view.h"

#include "hosted/fs/file_system.h"
#include "hosted/machine/program_state.h"
#include "hosted/ob/object.h"

#include <atomic>

namespace hosted
{
struct MappedView::State final : ProgramResource
{
    std::shared_ptr<ProgramState> Owner;
    std::atomic<PFILE_OBJECT> File{nullptr}; // referenced

    ~State() override { State::Close(); }

    void Close() override
    {
        PFILE_OBJECT file = File.exchange(nullptr);
        if (file != nullptr)
        {
            const AttachedProcess attached(Owner->Running);
            DereferenceObject(file);
        }
    }
};

MappedView::MappedView(const std::shared_ptr<ProgramState>& owner, PFILE_OBJECT file)
    : state_(std::make_shared<State>())
{
    state_->Owner = owner;
    if (file == nullptr || CacheMapOf(file) == nullptr)
    {
        status_ = STATUS_INVALID_HANDLE;
        return;
    }
    ReferenceObject(file);
    state_->File = file;
    AddResource(*owner, state_);
}

MappedView::~MappedView()
{
    Unmap();
}

std::string MappedView::Read(LONGLONG offset, ULONG length)
{
    PFILE_OBJECT file = state_->File;
    if (file == nullptr)
    {
        status_ = STATUS_INVALID_HANDLE;
        return {};
    }
    const AttachedProcess attached(RunningProcess(*state_->Owner));
    std::string bytes(length, '\0');
    status_ = MappedRead(CacheMapOf(file), offset, bytes.data(), length);
    return NT_SUCCESS(status_) ? bytes : std::string();
}

NTSTATUS MappedView::Write(std::string_view bytes, LONGLONG offset)
{
    PFILE_OBJECT file = state_->File;
    if (file == nullptr)
    {
        return status_ = STATUS_INVALID_HANDLE;
    }
    const AttachedProcess attached(RunningProcess(*state_->Owner));
    std::string copy(bytes);
    return status_ = MappedWrite(CacheMapOf(file), offset, copy.data(), static_cast<ULONG>(copy.size()));
}

void MappedView::Unmap()
{
    // Nothing to unmap in a view that was moved from.
    if (state_ != nullptr)
    {
        state_->Close();
    }
}
}
