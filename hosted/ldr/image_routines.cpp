#include "hosted/ldr/image_routines.h"

#include "hosted/ke/bug_check.h"
#include "hosted/ldr/image_faults.h"
#include "hosted/ldr/unwind.h"

#include <cstring>
#include <iterator>

namespace
{
// The same but for the calling convention, and that compiled code may pass anything along with a length of 0.
NTAPI void* CopyForImage(void* target, const void* source, size_t bytes)
{
    return bytes == 0 ? target : std::memcpy(target, source, bytes);
}

NTAPI void* MoveForImage(void* target, const void* source, size_t bytes)
{
    return bytes == 0 ? target : std::memmove(target, source, bytes);
}

NTAPI void* FillForImage(void* target, int value, size_t bytes)
{
    return bytes == 0 ? target : std::memset(target, value, bytes);
}

NTAPI int CompareForImage(const void* first, const void* second, size_t bytes)
{
    return bytes == 0 ? 0 : std::memcmp(first, second, bytes);
}

struct Named
{
    const char* Name;
    void* Address;
};

const Named Routines[] = {
    {"memcpy", reinterpret_cast<void*>(CopyForImage)},
    {"memmove", reinterpret_cast<void*>(MoveForImage)},
    {"memset", reinterpret_cast<void*>(FillForImage)},
    {"memcmp", reinterpret_cast<void*>(CompareForImage)},
    {"__C_specific_handler", reinterpret_cast<void*>(KernelCSpecificHandler)},
    {"RtlVirtualUnwind", reinterpret_cast<void*>(KernelVirtualUnwind)},
};
}

namespace hosted
{
void* ImageRoutine(const char* name)
{
    for (const Named& routine : Routines)
    {
        if (std::strcmp(routine.Name, name) == 0)
        {
            return routine.Address;
        }
    }
    BugCheck("image-routine", "nothing stands behind %s", name);
}
}
