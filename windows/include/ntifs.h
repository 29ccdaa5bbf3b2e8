#pragma once
#pragma GCC system_header

// The kernel interfaces as driver/ includes them in the Windows build: the DDK's own <ntifs.h>, made includable
// from C++, plus the few declarations that it lacks. hosted/include/ntifs.h offers the same names natively.

#include <stdarg.h>
#include <stddef.h>

#pragma clang diagnostic push
// The DDK pulls in <intrin.h>, which still includes the compiler's retired <mm3dnow.h>; that header announces its
// retirement even as a system header.
#pragma clang diagnostic ignored "-W#warnings"

// <intrin.h> and <wdm.h> both define these two; the first definition stays.
#ifndef __INTRINSIC_DEFINED_InterlockedBitTestAndSet
#define __INTRINSIC_DEFINED_InterlockedBitTestAndSet
#endif
#ifndef __INTRINSIC_DEFINED_InterlockedBitTestAndReset
#define __INTRINSIC_DEFINED_InterlockedBitTestAndReset
#endif

extern "C"
{
#include_next <ntifs.h>
}

#pragma clang diagnostic pop

// Flags newer than the DDK headers. Systems that do not know them ignore them.
#ifndef MdlMappingNoExecute
#define MdlMappingNoExecute 0x40000000
#endif
#ifndef POOL_ZERO_ALLOCATION
#define POOL_ZERO_ALLOCATION 0x00000400
#endif

#ifndef FAST_FAIL_CORRUPT_LIST_ENTRY
#define FAST_FAIL_CORRUPT_LIST_ENTRY 3
#endif

extern "C"
{

// Information classes of ZwQuerySystemInformation.
typedef enum _SYSTEM_INFORMATION_CLASS : int
{
    SystemBasicInformation = 0,
    SystemProcessInformation = 5
} SYSTEM_INFORMATION_CLASS;

// One record of SystemProcessInformation; its thread records follow it. NextEntryOffset is in bytes from the start
// of this record and 0 in the last one.
typedef struct _SYSTEM_PROCESS_INFORMATION
{
    ULONG NextEntryOffset;
    ULONG NumberOfThreads;
    LARGE_INTEGER WorkingSetPrivateSize;
    ULONG HardFaultCount;
    ULONG NumberOfThreadsHighWatermark;
    ULONGLONG CycleTime;
    LARGE_INTEGER CreateTime;
    LARGE_INTEGER UserTime;
    LARGE_INTEGER KernelTime;
    UNICODE_STRING ImageName;
    KPRIORITY BasePriority;
    HANDLE UniqueProcessId;
    HANDLE InheritedFromUniqueProcessId;
    ULONG HandleCount;
    ULONG SessionId;
    ULONG_PTR UniqueProcessKey;
    SIZE_T PeakVirtualSize;
    SIZE_T VirtualSize;
    ULONG PageFaultCount;
    SIZE_T PeakWorkingSetSize;
    SIZE_T WorkingSetSize;
    SIZE_T QuotaPeakPagedPoolUsage;
    SIZE_T QuotaPagedPoolUsage;
    SIZE_T QuotaPeakNonPagedPoolUsage;
    SIZE_T QuotaNonPagedPoolUsage;
    SIZE_T PagefileUsage;
    SIZE_T PeakPagefileUsage;
    SIZE_T PrivatePageCount;
    LARGE_INTEGER ReadOperationCount;
    LARGE_INTEGER WriteOperationCount;
    LARGE_INTEGER OtherOperationCount;
    LARGE_INTEGER ReadTransferCount;
    LARGE_INTEGER WriteTransferCount;
    LARGE_INTEGER OtherTransferCount;
} SYSTEM_PROCESS_INFORMATION, *PSYSTEM_PROCESS_INFORMATION;

// The DDK headers here declare the pointer itself imported, which takes one load too many: what the import table holds
// is the address of the kernel's variable.
extern POBJECT_TYPE* __imp_ExEventObjectType;
#define ExEventObjectType __imp_ExEventObjectType

// Formats into at most `count` characters. Returns the characters written without the terminator, or a negative
// number when the text did not fit; the text is then cut and not terminated. PASSIVE_LEVEL.
int __cdecl _vsnwprintf(wchar_t* buffer, size_t count, const wchar_t* format, va_list arguments);

// The upper-case form of one UTF-16 unit.
wint_t __cdecl towupper(wint_t unit);
}

// __fastfail(code) is a builtin of the compiler.

// The DDK types the priority as an enumeration that cannot hold flags such as MdlMappingNoExecute.
inline PVOID MmMapLockedPagesSpecifyCache(PMDL mdl, KPROCESSOR_MODE accessMode, MEMORY_CACHING_TYPE cacheType,
    PVOID requestedAddress, ULONG bugCheckOnFailure, ULONG priority)
{
    return MmMapLockedPagesSpecifyCache(
        mdl, accessMode, cacheType, requestedAddress, bugCheckOnFailure, static_cast<MM_PAGE_PRIORITY>(priority));
}
