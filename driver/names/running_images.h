// The images of processes that already run, for lists that are filled then. IRQL PASSIVE_LEVEL, no locks held.
#pragma once

#include "driver/names/process_snapshot.h"
#include "driver/util/counted_string.h"
#include "driver/util/kernel_handle.h"

struct RunningImage
{
    ProcessReference Process;
    // The image's NT path, its short components expanded.
    CountedString Path;
};

// What is printed, with the status, when an image's name cannot be had or cannot be expanded. The routines that failed
// have printed their part by then. Null: nothing more.
struct RunningImageTexts
{
    PCSTR NoName;
    PCSTR NoLongPath;
};

// Fills an empty record. False when the process is gone or its image has no name.
bool FindRunningImage(HANDLE processId, const RunningImageTexts& texts, RunningImage* image);

// Calls visit(process id, long NT image path) for each process of a snapshot that still runs and whose image has a
// name; the others are passed over.
template <class Visit>
inline void ForEachRunningImage(const SYSTEM_PROCESS_INFORMATION* snapshot, Visit&& visit)
{
    constexpr RunningImageTexts silent = {nullptr, nullptr};
    for (auto record = snapshot; record != nullptr; record = ProcessSnapshot::Next(record))
    {
        RunningImage image;
        if (FindRunningImage(record->UniqueProcessId, silent, &image))
        {
            visit(record->UniqueProcessId, &image.Path.Get());
        }
    }
}
