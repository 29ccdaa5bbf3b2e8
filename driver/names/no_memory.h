// What the name services say when memory has run out.
#pragma once

#include <ntifs.h>

// Prints it. STATUS_INSUFFICIENT_RESOURCES, for the caller to return. IRQL up to DISPATCH_LEVEL.
inline NTSTATUS NoMemory()
{
    DbgPrint("Memory allocation error\n");
    return STATUS_INSUFFICIENT_RESOURCES;
}
