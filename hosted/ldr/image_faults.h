// What happens when a loaded image faults, or when a routine that it called does.
#pragma once

#include <ntifs.h>

namespace hosted
{
// From now on faults inside loaded images are served (privileged instructions, the shared user data page), turned into
// exceptions for the image's handlers (user addresses), or reported. Again and again without effect.
void HandleImageFaults();

// The routine with which compiled code finds its handlers; the loader binds it without a stub in between.
bool IsHandlerRoutine(const char* name);
}

// Searches a frame's guarded ranges, as compiled code's own handlers do.
extern "C" int NTAPI KernelCSpecificHandler(PVOID record, PVOID frame, PVOID context, PVOID dispatcher);
