// Run-time library: strings, generic tables, version, debugger output.
#pragma once

#include "nt/ke.h"

typedef struct _OSVERSIONINFOW
{
    ULONG dwOSVersionInfoSize;
    ULONG dwMajorVersion;
    ULONG dwMinorVersion;
    ULONG dwBuildNumber;
    ULONG dwPlatformId;
    WCHAR szCSDVersion[128];
} RTL_OSVERSIONINFOW, *PRTL_OSVERSIONINFOW;

#define HASH_STRING_ALGORITHM_DEFAULT 0
#define HASH_STRING_ALGORITHM_X65599 1

typedef enum _TABLE_SEARCH_RESULT
{
    TableEmptyTree,
    TableFoundNode,
    TableInsertAsLeft,
    TableInsertAsRight
} TABLE_SEARCH_RESULT;

typedef enum _RTL_GENERIC_COMPARE_RESULTS
{
    GenericLessThan,
    GenericGreaterThan,
    GenericEqual
} RTL_GENERIC_COMPARE_RESULTS;

typedef struct _RTL_SPLAY_LINKS
{
    struct _RTL_SPLAY_LINKS* Parent;
    struct _RTL_SPLAY_LINKS* LeftChild;
    struct _RTL_SPLAY_LINKS* RightChild;
} RTL_SPLAY_LINKS, *PRTL_SPLAY_LINKS;

struct _RTL_GENERIC_TABLE;
typedef RTL_GENERIC_COMPARE_RESULTS(NTAPI RTL_GENERIC_COMPARE_ROUTINE)(
    struct _RTL_GENERIC_TABLE* Table, PVOID FirstStruct, PVOID SecondStruct);
typedef RTL_GENERIC_COMPARE_ROUTINE* PRTL_GENERIC_COMPARE_ROUTINE;
typedef PVOID(NTAPI RTL_GENERIC_ALLOCATE_ROUTINE)(struct _RTL_GENERIC_TABLE* Table, ULONG ByteSize);
typedef RTL_GENERIC_ALLOCATE_ROUTINE* PRTL_GENERIC_ALLOCATE_ROUTINE;
typedef void(NTAPI RTL_GENERIC_FREE_ROUTINE)(struct _RTL_GENERIC_TABLE* Table, PVOID Buffer);
typedef RTL_GENERIC_FREE_ROUTINE* PRTL_GENERIC_FREE_ROUTINE;

typedef struct _RTL_GENERIC_TABLE
{
    PRTL_SPLAY_LINKS TableRoot;
    LIST_ENTRY InsertOrderList;
    PLIST_ENTRY OrderedPointer;
    ULONG WhichOrderedElement;
    ULONG NumberGenericTableElements;
    PRTL_GENERIC_COMPARE_ROUTINE CompareRoutine;
    PRTL_GENERIC_ALLOCATE_ROUTINE AllocateRoutine;
    PRTL_GENERIC_FREE_ROUTINE FreeRoutine;
    PVOID TableContext;
} RTL_GENERIC_TABLE, *PRTL_GENERIC_TABLE;

void NTAPI RtlInitializeGenericTable(PRTL_GENERIC_TABLE Table, PRTL_GENERIC_COMPARE_ROUTINE CompareRoutine,
    PRTL_GENERIC_ALLOCATE_ROUTINE AllocateRoutine, PRTL_GENERIC_FREE_ROUTINE FreeRoutine, PVOID TableContext);
PVOID NTAPI RtlInsertElementGenericTable(PRTL_GENERIC_TABLE Table, PVOID Buffer, ULONG BufferSize, PBOOLEAN NewElement);
BOOLEAN NTAPI RtlDeleteElementGenericTable(PRTL_GENERIC_TABLE Table, PVOID Buffer);
PVOID NTAPI RtlLookupElementGenericTable(PRTL_GENERIC_TABLE Table, PVOID Buffer);
PVOID NTAPI RtlGetElementGenericTable(PRTL_GENERIC_TABLE Table, ULONG I);
ULONG NTAPI RtlNumberGenericTableElements(PRTL_GENERIC_TABLE Table);

NTSTATUS NTAPI RtlGetVersion(PRTL_OSVERSIONINFOW VersionInformation);
void NTAPI RtlInitUnicodeString(PUNICODE_STRING DestinationString, PCWSTR SourceString);
NTSTATUS NTAPI RtlHashUnicodeString(
    PCUNICODE_STRING String, BOOLEAN CaseInSensitive, ULONG HashAlgorithm, PULONG HashValue);
WCHAR NTAPI RtlUpcaseUnicodeChar(WCHAR SourceCharacter);

// Month and Day count from 1, Weekday from 0 for Sunday.
typedef struct _TIME_FIELDS
{
    CSHORT Year;
    CSHORT Month;
    CSHORT Day;
    CSHORT Hour;
    CSHORT Minute;
    CSHORT Second;
    CSHORT Milliseconds;
    CSHORT Weekday;
} TIME_FIELDS, *PTIME_FIELDS;

void NTAPI RtlTimeToTimeFields(PLARGE_INTEGER Time, PTIME_FIELDS TimeFields);

ULONG __cdecl DbgPrint(PCSTR Format, ...);

#define RtlCopyMemory(Destination, Source, Length) __builtin_memcpy((Destination), (Source), (Length))
#define RtlMoveMemory(Destination, Source, Length) __builtin_memmove((Destination), (Source), (Length))
#define RtlZeroMemory(Destination, Length) __builtin_memset((Destination), 0, (Length))
#define RtlFillMemory(Destination, Length, Fill) __builtin_memset((Destination), (Fill), (Length))

// The C run-time routines that the kernel exports. Their names belong to Linux's own library here, whose
// wide characters are wider, so the kernel's go by another name and the driver's calls are renamed to it.
unsigned short __cdecl KernelToUpper(unsigned short Character);
int __cdecl KernelVsnwprintf(WCHAR* Buffer, size_t Count, const WCHAR* Format, __builtin_ms_va_list Arguments);

#ifdef TARNVEIL_DRIVER_SOURCE
#include <stdarg.h>
#undef va_start
#undef va_end
#define va_list __builtin_ms_va_list
#define va_start(List, Last) __builtin_ms_va_start(List, Last)
#define va_end(List) __builtin_ms_va_end(List)
#define towupper KernelToUpper
#define _vsnwprintf KernelVsnwprintf
#endif
