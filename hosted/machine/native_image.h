// The driver that is linked with the hosted kernel. Only for programs that link it.
#pragma once

#include <ntifs.h>

extern "C" NTSTATUS NTAPI DriverEntry(PDRIVER_OBJECT DriverObject, PUNICODE_STRING RegistryPath);

namespace hosted::Image
{
inline DRIVER_INITIALIZE* const Native = &DriverEntry;
}
