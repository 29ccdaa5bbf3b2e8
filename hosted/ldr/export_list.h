// Every routine that a driver image may import, by the module that exports it. The loader's table, and the test of
// the image's imports, are made from this list and nothing else.
#pragma once

// EXPORT(Module, Name): the routine has the same name here.
// EXPORT_AS(Module, Name, Here): exported as Name; its name here differs, as Name belongs to Linux's C library.
// EXPORT_DATA(Module, Name): a variable; Name points to it.
// EXPORT_IMAGE(Module, Name): called by compiled code of an image only (the natively built driver uses those of Linux),
// so the loader supplies it with the image's calling convention. Which of them an image imports is up to its compiler.
//
// Routines found by name at run time (MmGetSystemRoutineAddress) are not here: importing them is not allowed.
// Neither are KeGetCurrentIrql, KeQuerySystemTime and the fast fail, which are instructions in an image.
#define HOSTED_EXPORTS(EXPORT, EXPORT_AS, EXPORT_DATA, EXPORT_IMAGE) \
    EXPORT(Ntoskrnl, DbgPrint)                                       \
    EXPORT(Ntoskrnl, ExAcquireFastMutex)                             \
    EXPORT(Ntoskrnl, ExAllocatePoolWithTag)                          \
    EXPORT_DATA(Ntoskrnl, ExEventObjectType)                         \
    EXPORT(Ntoskrnl, ExFreePoolWithTag)                              \
    EXPORT(Ntoskrnl, ExReleaseFastMutex)                             \
    EXPORT(Ntoskrnl, ExSystemTimeToLocalTime)                        \
    EXPORT(Ntoskrnl, FsRtlIsPagingFile)                              \
    EXPORT(Ntoskrnl, IoAllocateMdl)                                  \
    EXPORT(Ntoskrnl, IoCreateDevice)                                 \
    EXPORT(Ntoskrnl, IoCreateSymbolicLink)                           \
    EXPORT(Ntoskrnl, IoDeleteDevice)                                 \
    EXPORT(Ntoskrnl, IoDeleteSymbolicLink)                           \
    EXPORT(Ntoskrnl, IofCompleteRequest)                             \
    EXPORT(Ntoskrnl, IoFreeMdl)                                      \
    EXPORT(Ntoskrnl, IoGetStackLimits)                               \
    EXPORT(Ntoskrnl, IoVolumeDeviceToDosName)                        \
    EXPORT(Ntoskrnl, KeExpandKernelStackAndCallout)                  \
    EXPORT(Ntoskrnl, KeInitializeEvent)                              \
    EXPORT(Ntoskrnl, KeSetEvent)                                     \
    EXPORT(Ntoskrnl, KeWaitForSingleObject)                          \
    EXPORT(Ntoskrnl, MmBuildMdlForNonPagedPool)                      \
    EXPORT(Ntoskrnl, MmGetSystemRoutineAddress)                      \
    EXPORT(Ntoskrnl, MmMapLockedPagesSpecifyCache)                   \
    EXPORT(Ntoskrnl, ObfDereferenceObject)                           \
    EXPORT(Ntoskrnl, ObOpenObjectByPointer)                          \
    EXPORT(Ntoskrnl, ObReferenceObjectByHandle)                      \
    EXPORT(Ntoskrnl, ProbeForWrite)                                  \
    EXPORT(Ntoskrnl, PsGetCurrentProcessId)                          \
    EXPORT(Ntoskrnl, PsGetCurrentThreadId)                           \
    EXPORT(Ntoskrnl, PsLookupProcessByProcessId)                     \
    EXPORT(Ntoskrnl, PsSetCreateProcessNotifyRoutineEx)              \
    EXPORT(Ntoskrnl, RtlDeleteElementGenericTable)                   \
    EXPORT(Ntoskrnl, RtlGetElementGenericTable)                      \
    EXPORT(Ntoskrnl, RtlGetVersion)                                  \
    EXPORT(Ntoskrnl, RtlHashUnicodeString)                           \
    EXPORT(Ntoskrnl, RtlInitializeGenericTable)                      \
    EXPORT(Ntoskrnl, RtlInitUnicodeString)                           \
    EXPORT(Ntoskrnl, RtlInsertElementGenericTable)                   \
    EXPORT(Ntoskrnl, RtlLookupElementGenericTable)                   \
    EXPORT(Ntoskrnl, RtlNumberGenericTableElements)                  \
    EXPORT(Ntoskrnl, RtlTimeToTimeFields)                            \
    EXPORT(Ntoskrnl, RtlUpcaseUnicodeChar)                           \
    EXPORT(Ntoskrnl, ZwClose)                                        \
    EXPORT(Ntoskrnl, ZwOpenFile)                                     \
    EXPORT(Ntoskrnl, ZwOpenKey)                                      \
    EXPORT(Ntoskrnl, ZwOpenSymbolicLinkObject)                       \
    EXPORT(Ntoskrnl, ZwQueryDirectoryFile)                           \
    EXPORT(Ntoskrnl, ZwQuerySymbolicLinkObject)                      \
    EXPORT(Ntoskrnl, ZwQueryValueKey)                                \
    EXPORT(Ntoskrnl, ZwSetValueKey)                                  \
    EXPORT(Ntoskrnl, ZwWriteFile)                                    \
    EXPORT_AS(Ntoskrnl, _vsnwprintf, KernelVsnwprintf)               \
    EXPORT_AS(Ntoskrnl, towupper, KernelToUpper)                     \
    EXPORT_IMAGE(Ntoskrnl, __C_specific_handler)                     \
    EXPORT_IMAGE(Ntoskrnl, memcmp)                                   \
    EXPORT_IMAGE(Ntoskrnl, memcpy)                                   \
    EXPORT_IMAGE(Ntoskrnl, memmove)                                  \
    EXPORT_IMAGE(Ntoskrnl, memset)                                   \
    EXPORT_IMAGE(Ntoskrnl, RtlVirtualUnwind)                         \
    EXPORT(FilterManager, FltAllocateContext)                        \
    EXPORT(FilterManager, FltAllocatePoolAlignedWithTag)             \
    EXPORT(FilterManager, FltFreePoolAlignedWithTag)                 \
    EXPORT(FilterManager, FltGetFileNameInformation)                 \
    EXPORT(FilterManager, FltGetRequestorProcessIdEx)                \
    EXPORT(FilterManager, FltGetStreamContext)                       \
    EXPORT(FilterManager, FltGetVolumeName)                          \
    EXPORT(FilterManager, FltIsDirectory)                            \
    EXPORT(FilterManager, FltParseFileNameInformation)               \
    EXPORT(FilterManager, FltRegisterFilter)                         \
    EXPORT(FilterManager, FltReleaseContext)                         \
    EXPORT(FilterManager, FltReleaseFileNameInformation)             \
    EXPORT(FilterManager, FltSetCallbackDataDirty)                   \
    EXPORT(FilterManager, FltSetStreamContext)                       \
    EXPORT(FilterManager, FltStartFiltering)                         \
    EXPORT(FilterManager, FltUnregisterFilter)

#include <cstddef>

namespace hosted
{
struct ExportedRoutine
{
    const char* Module; // "ntoskrnl.exe" or "FLTMGR.SYS"
    const char* Name;
    void* Address;  // what an import is bound to; null for ImageOnly
    bool ImageOnly; // the loader has its own
    bool Data;      // a variable
};

// The list as a table; *count receives its length.
const ExportedRoutine* ExportedRoutines(size_t* count);
}
