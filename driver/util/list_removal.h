// The one way in which entries leave a locked list when each is to be reported.
#pragma once

#include "driver/util/list.h"
#include "driver/util/pool.h"

// Under the lock: counts the entries, allocates an array of that many pointers, unlinks every entry for which
// matches(entry) holds and calls unlinked(entry). After it, for each removed entry in list order: record(entry),
// then release(entry), which frees it. Log records may block, so none is written under a lock; without memory for
// the array an entry is released at once and goes unrecorded. IRQL PASSIVE_LEVEL (records), APC_LEVEL without.
template <class Entry, class Matches, class Unlinked, class Record, class Release>
inline void RemoveEntries(
    LockedList<Entry>& list, Matches&& matches, Unlinked&& unlinked, Record&& record, Release&& release)
{
    PoolPointer<Entry*> removed;
    ULONG removedCount = 0;
    WithLock(list.Lock,
        [&]() REQUIRES_LOCK(list.Lock)
        {
            ULONG count = list.Entries.Count();
            if (count == 0)
            {
                return;
            }
            removed = PoolPointer<Entry*>::Allocate(count * sizeof(Entry*));
            list.Entries.ForEach(
                [&](Entry* entry)
                {
                    if (!matches(entry))
                    {
                        return;
                    }
                    List<Entry>::Unlink(entry);
                    unlinked(entry);
                    if (removed)
                    {
                        removed[removedCount++] = entry;
                    }
                    else
                    {
                        release(entry);
                    }
                });
        });
    for (ULONG i = 0; i < removedCount; ++i)
    {
        record(removed[i]);
        release(removed[i]);
    }
}
