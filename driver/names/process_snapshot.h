// One look at all running processes.
#pragma once

#include "driver/util/pool.h"

// Owns the chain of records of class SystemProcessInformation that one query gave. A record lives as long as the
// snapshot.
class ProcessSnapshot
{
public:
    // Once per object. The failures of QuerySystemInformation. IRQL PASSIVE_LEVEL.
    NTSTATUS Take();

    // Null before a snapshot was taken. The routines below only read memory: any IRQL up to DISPATCH_LEVEL.
    const SYSTEM_PROCESS_INFORMATION* First() const { return records_.Get(); }

    template <class Matches>
    const SYSTEM_PROCESS_INFORMATION* Find(Matches&& matches) const
    {
        return FindRecord(First(), matches);
    }

    // The record behind another in the chain, or null.
    static const SYSTEM_PROCESS_INFORMATION* Next(const SYSTEM_PROCESS_INFORMATION* record)
    {
        if (record->NextEntryOffset == 0)
        {
            return nullptr;
        }
        return reinterpret_cast<const SYSTEM_PROCESS_INFORMATION*>(
            reinterpret_cast<const UCHAR*>(record) + record->NextEntryOffset);
    }

    // The first record of a chain, which may be null, for which matches(record) holds; null when there is none.
    template <class Matches>
    static const SYSTEM_PROCESS_INFORMATION* FindRecord(const SYSTEM_PROCESS_INFORMATION* first, Matches&& matches)
    {
        for (auto record = first; record != nullptr; record = Next(record))
        {
            if (matches(record))
            {
                return record;
            }
        }
        return nullptr;
    }

private:
    PoolPointer<SYSTEM_PROCESS_INFORMATION> records_;
};
