// One look at all running processes.
#pragma once

#include "driver/core/system_routines.h"
#include "driver/util/pool.h"

class ProcessSnapshot
{
public:
    // Once per object. The failures of QuerySystemInformation. IRQL PASSIVE_LEVEL.
    NTSTATUS Take()
    {
        PSYSTEM_PROCESS_INFORMATION records = nullptr;
        NTSTATUS status = QuerySystemInformation(&records);
        records_ = PoolPointer<SYSTEM_PROCESS_INFORMATION>(records);
        return status;
    }

    // Null before a snapshot was taken.
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

    // The first record of a chain for which matches(record) holds, or null.
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
