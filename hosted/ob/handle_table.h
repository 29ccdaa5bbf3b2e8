// Handles: one table per process and one for the kernel.
#pragma once

#include "common/mutex.h"
#include "hosted/ob/object.h"

#include <map>

namespace hosted
{
class HandleTable
{
public:
    explicit HandleTable(bool kernel);
    ~HandleTable();

    // Takes a reference of its own on the object. Kernel handles have the sign bit set, user handles are small
    // multiples of four.
    HANDLE Insert(void* body, ACCESS_MASK granted);
    // STATUS_INVALID_HANDLE, STATUS_OBJECT_TYPE_MISMATCH (type given and different), STATUS_ACCESS_DENIED (user
    // mode only). On success *body carries a reference for the caller.
    NTSTATUS Reference(HANDLE handle, ACCESS_MASK desired, const ObjectType* type, KPROCESSOR_MODE mode, void** body);
    // The access that a handle was opened with. STATUS_INVALID_HANDLE.
    NTSTATUS Granted(HANDLE handle, ACCESS_MASK* granted) const;
    // STATUS_INVALID_HANDLE.
    NTSTATUS Close(HANDLE handle);
    // Closes what a process leaves behind when it ends.
    void CloseAll();
    size_t Count() const;

private:
    struct Entry
    {
        void* Body;
        ACCESS_MASK Granted;
    };
    const bool kernel_;
    mutable common::Mutex mutex_;
    std::map<ULONG_PTR, Entry> entries_ GUARDED_BY(mutex_);
    ULONG_PTR next_ GUARDED_BY(mutex_) = 4;
};

HandleTable& KernelHandles();
// The table of the process for which the calling thread works.
HandleTable& CurrentProcessHandles();
// Chooses by the handle's sign bit.
HandleTable& TableOf(HANDLE handle);
// The table in which an open with these object attributes puts its handle (OBJ_KERNEL_HANDLE decides).
HandleTable& TableFor(ULONG attributes);
}
