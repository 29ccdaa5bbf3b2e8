// The images of running processes, for lists that are filled while processes already run.
#pragma once

#include "driver/names/long_path_name.h"
#include "driver/names/process_image_name.h"
#include "driver/process/process_snapshot.h"

// Calls visit(process id, long NT image path) for each process of a snapshot that still runs and whose image has a
// name; the others are passed over. IRQL PASSIVE_LEVEL.
template <class Visit>
inline void ForEachRunningImage(const SYSTEM_PROCESS_INFORMATION* snapshot, Visit&& visit)
{
    for (auto record = snapshot; record != nullptr; record = ProcessSnapshot::Next(record))
    {
        PoolPointer<UNICODE_STRING> imageName;
        ProcessReference process;
        CountedString longPath;
        if (NT_SUCCESS(GetProcessImageNameFromProcessId(record->UniqueProcessId, &imageName, &process)) &&
            NT_SUCCESS(KernelGetLongPathName(imageName.Get(), &longPath)))
        {
            visit(record->UniqueProcessId, &longPath.Get());
        }
    }
}
