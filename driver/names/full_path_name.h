// The full NT path of what a create is about to open. IRQL PASSIVE_LEVEL. Outputs are complete or empty.
#pragma once

#include "driver/util/counted_string.h"

#include <fltkernel.h>

// The path by which the create is judged: built from the file object where possible, else from the normalized name.
// STATUS_ACCESS_DENIED when no name could be had. Succeeds with an empty path when the system gives no information.
NTSTATUS GetCreateTargetName(PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS objects, CountedString* path);

// Volume name + name of the related file object + separator where one is wanted + the file object's name.
// STATUS_INSUFFICIENT_RESOURCES without memory or for a volume without a name; else what the volume name query answers,
// with an empty path.
NTSTATUS CreateFullPathNameFromFltObjects(PCFLT_RELATED_OBJECTS objects, CountedString* path);

// The normalized name where it says the same as the file object's own name, else volume + file object name: the
// name as the caller spelled it. STATUS_INSUFFICIENT_RESOURCES without memory.
NTSTATUS CreateFullPathNameFromNameInfo(
    PCFLT_RELATED_OBJECTS objects, PFLT_FILE_NAME_INFORMATION nameInfo, CountedString* path);
