#include "driver/process/setting_id.h"

#include "driver/core/global_state.h"
#include "driver/util/debug_print.h"
#include "driver/util/pool.h"

namespace
{
IdentifierManager& Manager = Global.Identifiers;

ULONG TakeReleasedId(ReleasedIdEntry* entry) REQUIRES_LOCK(Manager.Released.Lock)
{
    ULONG id = entry->Id;
    List<ReleasedIdEntry>::Unlink(entry);
    FreePool(entry);
    PrintWithDriverName("[IDMan] ReuseId = %d\n", id);
    return id;
}

ULONG TakeFreshId() REQUIRES_LOCK(Manager.Released.Lock)
{
    ULONG id = Manager.NextId++;
    PrintWithDriverName("[IDMan] IssueId = %d\n", id);
    return id;
}

NTSTATUS KeepReleasedId(ULONG id) REQUIRES_LOCK(Manager.Released.Lock)
{
    bool known = Manager.Released.Entries.Find([id](ReleasedIdEntry* entry) { return entry->Id == id; }) != nullptr;
    if (id >= Manager.NextId || known)
    {
        return STATUS_SUCCESS;
    }
    auto entry = PoolPointer<ReleasedIdEntry>::Allocate();
    if (!entry)
    {
        PrintWithDriverName("[IDMan] ReleasedId information allocate error\n");
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    entry->Id = id;
    PrintWithDriverName("[IDMan] ReleaseId = %d\n", id);
    Manager.Released.Entries.Append(entry.Detach());
    return STATUS_SUCCESS;
}
}

// Nobody else is there yet, so no lock is taken.
void IdManInitialize() NO_LOCK_ANALYSIS
{
    Manager.Released.Lock.Initialize();
    Manager.Released.Entries.Initialize();
}

void IdManFinalize()
{
    WithLock(Manager.Released.Lock,
        []() REQUIRES_LOCK(Manager.Released.Lock)
        {
            Manager.Released.Entries.ForEach(
                [](ReleasedIdEntry* entry)
                {
                    List<ReleasedIdEntry>::Unlink(entry);
                    FreePool(entry);
                });
        });
}

ULONG IssueId()
{
    ULONG id = 0;
    WithLock(Manager.Released.Lock,
        [&id]() REQUIRES_LOCK(Manager.Released.Lock)
        {
            ReleasedIdEntry* oldest = Manager.Released.Entries.First();
            id = oldest != nullptr ? TakeReleasedId(oldest) : TakeFreshId();
        });
    return id;
}

NTSTATUS ReleaseId(ULONG id)
{
    NTSTATUS status = STATUS_SUCCESS;
    WithLock(Manager.Released.Lock, [&]() REQUIRES_LOCK(Manager.Released.Lock) { status = KeepReleasedId(id); });
    return status;
}
