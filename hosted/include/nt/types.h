// Base types of the Windows kernel interfaces, with the sizes and offsets that they have on 64-bit Windows.
#pragma once

#include <stddef.h>
#include <stdint.h>

#define NTAPI __attribute__((ms_abi))
#define FASTCALL __attribute__((ms_abi))
#define NTAPIV __attribute__((ms_abi))
#ifndef __cdecl
#define __cdecl __attribute__((ms_abi))
#endif
#define NTSYSAPI
#define NTKERNELAPI
#define FORCEINLINE static inline __attribute__((always_inline))
#define DECLSPEC_NORETURN [[noreturn]]
#define UNREFERENCED_PARAMETER(P) ((void)(P))
#define POINTER_ALIGNMENT __attribute__((aligned(8)))
#define CONST const
#define VOID void
#define ANYSIZE_ARRAY 1

typedef void* PVOID;
typedef char CHAR, *PCHAR, CCHAR;
typedef const char* PCSTR;
typedef unsigned char UCHAR, *PUCHAR;
typedef short SHORT, CSHORT;
typedef unsigned short USHORT, *PUSHORT;
typedef int LONG, *PLONG;
typedef unsigned int ULONG, *PULONG;
typedef long long LONGLONG, *PLONGLONG;
typedef unsigned long long ULONGLONG, *PULONGLONG;
typedef long long LONG_PTR, INT_PTR;
typedef unsigned long long ULONG_PTR, *PULONG_PTR, UINT_PTR;
typedef ULONG_PTR SIZE_T, *PSIZE_T;
typedef ULONG_PTR KAFFINITY;
typedef wchar_t WCHAR;
typedef WCHAR *PWCH, *PWSTR, *PWCHAR;
typedef const WCHAR *PCWSTR, *PCWCH;
typedef UCHAR BOOLEAN, *PBOOLEAN;
typedef LONG NTSTATUS, *PNTSTATUS;
typedef PVOID HANDLE, *PHANDLE;
typedef ULONG ACCESS_MASK, *PACCESS_MASK;
typedef UCHAR KIRQL, *PKIRQL;
typedef CCHAR KPROCESSOR_MODE;
typedef LONG KPRIORITY;
typedef ULONG DEVICE_TYPE;
typedef ULONG POOL_FLAGS;
typedef ULONG_PTR PFN_NUMBER, *PPFN_NUMBER;

static_assert(sizeof(WCHAR) == 2, "compile with -fshort-wchar");
static_assert(sizeof(void*) == 8, "only 64-bit systems are modelled");

#ifndef TRUE
#define TRUE 1
#define FALSE 0
#endif

#define UNICODE_NULL ((WCHAR)0)
#define PAGE_SIZE 0x1000
#define PAGE_SHIFT 12L

#define FIELD_OFFSET(Type, Field) ((LONG)offsetof(Type, Field))
#define CONTAINING_RECORD(Address, Type, Field) ((Type*)((PCHAR)(Address) - offsetof(Type, Field)))
#define FlagOn(Flags, Mask) ((Flags) & (Mask))
#define BooleanFlagOn(Flags, Mask) ((BOOLEAN)(((Flags) & (Mask)) != 0))
#define SetFlag(Flags, Mask) ((Flags) |= (Mask))
#define ClearFlag(Flags, Mask) ((Flags) &= ~(Mask))
#define ALIGN_DOWN_BY(Length, Alignment) ((ULONG_PTR)(Length) & ~((ULONG_PTR)(Alignment) - 1))
#define ALIGN_UP_BY(Length, Alignment) ALIGN_DOWN_BY((ULONG_PTR)(Length) + (Alignment) - 1, Alignment)
#define ROUND_TO_PAGES(Size) (((ULONG_PTR)(Size) + PAGE_SIZE - 1) & ~((ULONG_PTR)PAGE_SIZE - 1))
#define BYTE_OFFSET(Va) ((ULONG)((LONG_PTR)(Va) & (PAGE_SIZE - 1)))
#define PAGE_ALIGN(Va) ((PVOID)((ULONG_PTR)(Va) & ~((ULONG_PTR)PAGE_SIZE - 1)))
#define ADDRESS_AND_SIZE_TO_SPAN_PAGES(Va, Size) \
    ((ULONG)((BYTE_OFFSET(Va) + (SIZE_T)(Size) + PAGE_SIZE - 1) >> PAGE_SHIFT))

typedef union _LARGE_INTEGER
{
    struct
    {
        ULONG LowPart;
        LONG HighPart;
    };
    struct
    {
        ULONG LowPart;
        LONG HighPart;
    } u;
    LONGLONG QuadPart;
} LARGE_INTEGER, *PLARGE_INTEGER;

typedef struct _LIST_ENTRY
{
    struct _LIST_ENTRY* Flink;
    struct _LIST_ENTRY* Blink;
} LIST_ENTRY, *PLIST_ENTRY;

typedef struct _SINGLE_LIST_ENTRY
{
    struct _SINGLE_LIST_ENTRY* Next;
} SINGLE_LIST_ENTRY, *PSINGLE_LIST_ENTRY;

// Lengths are in bytes; Buffer need not be terminated.
typedef struct _UNICODE_STRING
{
    USHORT Length;
    USHORT MaximumLength;
    PWSTR Buffer;
} UNICODE_STRING, *PUNICODE_STRING;
typedef const UNICODE_STRING* PCUNICODE_STRING;

typedef struct _CLIENT_ID
{
    HANDLE UniqueProcess;
    HANDLE UniqueThread;
} CLIENT_ID, *PCLIENT_ID;

typedef struct _IO_STATUS_BLOCK
{
    union
    {
        NTSTATUS Status;
        PVOID Pointer;
    };
    ULONG_PTR Information;
} IO_STATUS_BLOCK, *PIO_STATUS_BLOCK;

typedef struct _OBJECT_ATTRIBUTES
{
    ULONG Length;
    HANDLE RootDirectory;
    PUNICODE_STRING ObjectName;
    ULONG Attributes;
    PVOID SecurityDescriptor;
    PVOID SecurityQualityOfService;
} OBJECT_ATTRIBUTES, *POBJECT_ATTRIBUTES;

#define OBJ_INHERIT 0x00000002L
#define OBJ_CASE_INSENSITIVE 0x00000040L
#define OBJ_KERNEL_HANDLE 0x00000200L

#define InitializeObjectAttributes(Attributes_, Name, Flags_, Root, Security) \
    do                                                                        \
    {                                                                         \
        (Attributes_)->Length = sizeof(OBJECT_ATTRIBUTES);                    \
        (Attributes_)->RootDirectory = (Root);                                \
        (Attributes_)->ObjectName = (Name);                                   \
        (Attributes_)->Attributes = (Flags_);                                 \
        (Attributes_)->SecurityDescriptor = (Security);                       \
        (Attributes_)->SecurityQualityOfService = nullptr;                    \
    } while (0)

#define DELETE 0x00010000L
#define READ_CONTROL 0x00020000L
#define WRITE_DAC 0x00040000L
#define WRITE_OWNER 0x00080000L
#define SYNCHRONIZE 0x00100000L
#define STANDARD_RIGHTS_REQUIRED 0x000F0000L
#define STANDARD_RIGHTS_READ READ_CONTROL
#define STANDARD_RIGHTS_ALL 0x001F0000L
#define GENERIC_READ 0x80000000L
#define GENERIC_WRITE 0x40000000L
#define GENERIC_EXECUTE 0x20000000L
#define GENERIC_ALL 0x10000000L
#define EVENT_MODIFY_STATE 0x0002
#define EVENT_ALL_ACCESS (STANDARD_RIGHTS_REQUIRED | SYNCHRONIZE | 0x3)
#define KEY_QUERY_VALUE 0x0001
#define KEY_SET_VALUE 0x0002
#define KEY_READ 0x20019
#define KEY_WRITE 0x20006
#define KEY_ALL_ACCESS 0xF003F

typedef enum _MODE
{
    KernelMode,
    UserMode,
    MaximumMode
} MODE;

#define PASSIVE_LEVEL 0
#define APC_LEVEL 1
#define DISPATCH_LEVEL 2
#define HIGH_LEVEL 15
