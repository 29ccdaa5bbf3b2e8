// Copies of the lists that the parameter dump shows: made under a list's lock, printed without it. Each owns what it
// copied. IRQL up to DISPATCH_LEVEL; above APC_LEVEL a list is copied without its lock.
#pragma once

#include "driver/util/list.h"
#include "driver/util/pool.h"

struct AllowedProcessEntry;
struct MonitoredProcessEntry;
struct ProcessNameEntry;

// A fixed number of slots in one block; frees what they own with the slot's own Free().
template <class Slot>
class ListCopy
{
public:
    ListCopy() = default;
    ListCopy(const ListCopy&) = delete;
    ListCopy& operator=(const ListCopy&) = delete;
    ~ListCopy() { Free(); }

    // Zeroed slots; with none of them there is no block. False without memory.
    bool Allocate(ULONG count)
    {
        Free();
        if (count == 0)
        {
            return true;
        }
        slots_ = PoolPointer<Slot>::Allocate(count * sizeof(Slot));
        count_ = slots_ ? count : 0;
        return static_cast<bool>(slots_);
    }

    // Back to no slots.
    void Free()
    {
        for (ULONG i = 0; i < count_; ++i)
        {
            slots_[i].Free();
        }
        slots_ = PoolPointer<Slot>();
        count_ = 0;
    }

    ULONG Count() const { return count_; }
    Slot& operator[](ULONG index) const { return slots_[index]; }

private:
    PoolPointer<Slot> slots_;
    ULONG count_ = 0;
};

struct NameSlot
{
    // Without a buffer for an entry without a name.
    UNICODE_STRING Name;
    void Free() { FreePool(Name.Buffer); }
};

struct ProcessSlot
{
    HANDLE ProcessId;
    void Free() {}
};

// All replace what the copy held. STATUS_INVALID_PARAMETER, with nothing done, for a null argument;
// STATUS_INSUFFICIENT_RESOURCES without memory: the copy is then empty.
NTSTATUS DuplicateProcessNameList(LockedList<ProcessNameEntry>* list, ListCopy<NameSlot>* copy);
NTSTATUS DuplicateMonProcList(LockedList<MonitoredProcessEntry>* list, ListCopy<ProcessSlot>* copy);
// The lock is the one that guards the list, which is a protected file's.
NTSTATUS DuplicateAllowedProcessList(List<AllowedProcessEntry>* list, FastLock* lock, ListCopy<ProcessSlot>* copy);
