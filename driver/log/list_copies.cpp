#include "driver/log/list_copies.h"

#include "driver/core/global_state.h"
#include "driver/util/counted_string.h"

namespace
{
// One slot per entry in list order, filled by fill(entry, slot), which is false without memory. The caller holds the
// list's lock.
template <class Entry, class Slot, class Fill>
NTSTATUS CopyEntries(const List<Entry>& entries, ListCopy<Slot>* copy, Fill&& fill)
{
    if (!copy->Allocate(entries.Count()))
    {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    ULONG next = 0;
    Entry* failed = entries.Find([&](Entry* entry) { return !fill(entry, &(*copy)[next++]); });
    if (failed != nullptr)
    {
        copy->Free();
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    return STATUS_SUCCESS;
}

bool FillName(const ProcessNameEntry* entry, NameSlot* slot)
{
    if (entry->Name.Length == 0 || entry->Name.Buffer == nullptr)
    {
        return true;
    }
    CountedString name;
    if (!name.Copy(entry->Name, entry->Name.Length))
    {
        return false;
    }
    slot->Name = name.Detach();
    return true;
}

template <class Entry>
bool FillProcess(const Entry* entry, ProcessSlot* slot)
{
    slot->ProcessId = entry->ProcessId;
    return true;
}
}

NTSTATUS DuplicateProcessNameList(LockedList<ProcessNameEntry>* list, ListCopy<NameSlot>* copy)
{
    if (list == nullptr || copy == nullptr)
    {
        return STATUS_INVALID_PARAMETER;
    }
    NTSTATUS status = STATUS_SUCCESS;
    WithLockBelowDispatch(
        list->Lock, [&, list]() REQUIRES_LOCK(list->Lock) { status = CopyEntries(list->Entries, copy, FillName); });
    return status;
}

NTSTATUS DuplicateMonProcList(LockedList<MonitoredProcessEntry>* list, ListCopy<ProcessSlot>* copy)
{
    if (list == nullptr || copy == nullptr)
    {
        return STATUS_INVALID_PARAMETER;
    }
    NTSTATUS status = STATUS_SUCCESS;
    WithLockBelowDispatch(list->Lock, [&, list]() REQUIRES_LOCK(list->Lock)
        { status = CopyEntries(list->Entries, copy, FillProcess<MonitoredProcessEntry>); });
    return status;
}

NTSTATUS DuplicateAllowedProcessList(List<AllowedProcessEntry>* list, FastLock* lock, ListCopy<ProcessSlot>* copy)
{
    if (list == nullptr || lock == nullptr || copy == nullptr)
    {
        return STATUS_INVALID_PARAMETER;
    }
    NTSTATUS status = STATUS_SUCCESS;
    WithLockBelowDispatch(
        *lock, [&]() REQUIRES_LOCK(*lock) { status = CopyEntries(*list, copy, FillProcess<AllowedProcessEntry>); });
    return status;
}
