#include "hosted/ob/handle_table.h"

#include "hosted/ob/caller.h"
#include "hosted/ob/object_counts.h"

namespace hosted
{
namespace
{
constexpr ULONG_PTR KernelHandleBits = 0xFFFFFFFF80000000;
constexpr ULONG_PTR HandleStep = 4;
// The two low bits of a handle are the holder's to use.
constexpr ULONG_PTR TagBits = 3;

ULONG_PTR IndexOf(HANDLE handle)
{
    return reinterpret_cast<ULONG_PTR>(handle) & ~TagBits;
}

bool IsKernelHandle(HANDLE handle)
{
    return reinterpret_cast<LONG_PTR>(handle) < 0;
}
}

HandleTable::HandleTable(bool kernel) : kernel_(kernel) {}

HandleTable::~HandleTable()
{
    CloseAll();
}

HANDLE HandleTable::Insert(void* body, ACCESS_MASK granted)
{
    ReferenceObject(body);
    AddHandleCount(body);
    common::Guard lock(mutex_);
    // Values are not used twice, so that a stale handle never names another object by chance.
    ULONG_PTR index = next_ | (kernel_ ? KernelHandleBits : 0);
    next_ += HandleStep;
    entries_[index] = {body, granted};
    return reinterpret_cast<HANDLE>(index);
}

NTSTATUS HandleTable::Reference(
    HANDLE handle, ACCESS_MASK desired, const ObjectType* type, KPROCESSOR_MODE mode, void** body)
{
    *body = nullptr;
    // A program cannot use the kernel's handles.
    if (kernel_ && mode == UserMode)
    {
        return STATUS_INVALID_HANDLE;
    }
    common::Guard lock(mutex_);
    auto found = entries_.find(IndexOf(handle));
    if (found == entries_.end())
    {
        return STATUS_INVALID_HANDLE;
    }
    const Entry& entry = found->second;
    if (type != nullptr && &TypeOf(entry.Body) != type)
    {
        return STATUS_OBJECT_TYPE_MISMATCH;
    }
    if (mode == UserMode && (entry.Granted & desired) != desired)
    {
        return STATUS_ACCESS_DENIED;
    }
    // Under the lock, as the table's own reference is what keeps the object.
    ReferenceObject(entry.Body);
    *body = entry.Body;
    return STATUS_SUCCESS;
}

NTSTATUS HandleTable::Granted(HANDLE handle, ACCESS_MASK* granted) const
{
    common::Guard lock(mutex_);
    auto found = entries_.find(IndexOf(handle));
    if (found == entries_.end())
    {
        return STATUS_INVALID_HANDLE;
    }
    *granted = found->second.Granted;
    return STATUS_SUCCESS;
}

NTSTATUS HandleTable::Close(HANDLE handle)
{
    void* body;
    {
        common::Guard lock(mutex_);
        auto found = entries_.find(IndexOf(handle));
        if (found == entries_.end())
        {
            return STATUS_INVALID_HANDLE;
        }
        body = found->second.Body;
        entries_.erase(found);
    }
    DropHandleCount(body);
    DereferenceObject(body);
    return STATUS_SUCCESS;
}

void HandleTable::CloseAll()
{
    std::map<ULONG_PTR, Entry> entries;
    {
        common::Guard lock(mutex_);
        entries.swap(entries_);
    }
    for (const auto& [index, entry] : entries)
    {
        DropHandleCount(entry.Body);
        DereferenceObject(entry.Body);
    }
}

size_t HandleTable::Count() const
{
    common::Guard lock(mutex_);
    return entries_.size();
}

HandleTable& KernelHandles()
{
    static HandleTable& table = *new HandleTable(true);
    return table;
}

HandleTable& CurrentProcessHandles()
{
    return Caller().Handles();
}

HandleTable& TableOf(HANDLE handle)
{
    return IsKernelHandle(handle) ? KernelHandles() : CurrentProcessHandles();
}

HandleTable& TableFor(ULONG attributes)
{
    return (attributes & OBJ_KERNEL_HANDLE) != 0 ? KernelHandles() : CurrentProcessHandles();
}
}
