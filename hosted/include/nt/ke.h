// Dispatcher objects, fast mutexes, pool, memory descriptor lists.
#pragma once

#include "nt/status.h"

typedef struct _EPROCESS* PEPROCESS;
typedef struct _ETHREAD* PETHREAD;
typedef struct _KTHREAD* PKTHREAD;

typedef struct _DISPATCHER_HEADER
{
    UCHAR Type;
    UCHAR Signalling;
    UCHAR Size;
    UCHAR Inserted;
    LONG SignalState;
    LIST_ENTRY WaitListHead;
} DISPATCHER_HEADER;

typedef struct _KEVENT
{
    DISPATCHER_HEADER Header;
} KEVENT, *PKEVENT, *PRKEVENT;

typedef enum _EVENT_TYPE : int
{
    NotificationEvent,
    SynchronizationEvent
} EVENT_TYPE;

typedef enum _KWAIT_REASON : int
{
    Executive
} KWAIT_REASON;

typedef struct _FAST_MUTEX
{
    LONG Count;
    PVOID Owner;
    ULONG Contention;
    KEVENT Event;
    ULONG OldIrql;
} FAST_MUTEX, *PFAST_MUTEX;

#define FM_LOCK_BIT 0x1

// Fixed: flags are added to a pool type, which reach past its enumerators.
typedef enum _POOL_TYPE : int
{
    NonPagedPool = 0,
    PagedPool = 1,
    NonPagedPoolCacheAligned = 4,
    NonPagedPoolNx = 0x200,
    NonPagedPoolNxCacheAligned = 0x204
} POOL_TYPE;

#define POOL_ZERO_ALLOCATION 1024
#define MdlMappingNoExecute 0x40000000

typedef enum _MEMORY_CACHING_TYPE
{
    MmNonCached = FALSE,
    MmCached = TRUE,
    MmWriteCombined = 2
} MEMORY_CACHING_TYPE;

typedef enum _MM_PAGE_PRIORITY
{
    LowPagePriority,
    NormalPagePriority = 16,
    HighPagePriority = 32
} MM_PAGE_PRIORITY;

typedef struct _MDL
{
    struct _MDL* Next;
    CSHORT Size;
    CSHORT MdlFlags;
    struct _EPROCESS* Process;
    PVOID MappedSystemVa;
    PVOID StartVa;
    ULONG ByteCount;
    ULONG ByteOffset;
} MDL, *PMDL;

#define MDL_MAPPED_TO_SYSTEM_VA 0x0001
#define MDL_PAGES_LOCKED 0x0002
#define MDL_SOURCE_IS_NONPAGED_POOL 0x0004
#define MDL_ALLOCATED_FIXED_SIZE 0x0008
#define MDL_PARTIAL 0x0010
#define MDL_IO_PAGE_READ 0x0040
#define MDL_WRITE_OPERATION 0x0080

#define MmGetMdlByteCount(Mdl) ((Mdl)->ByteCount)
#define MmGetMdlByteOffset(Mdl) ((Mdl)->ByteOffset)
#define MmGetMdlVirtualAddress(Mdl) ((PVOID)((PCHAR)((Mdl)->StartVa) + (Mdl)->ByteOffset))

typedef void(NTAPI EXPAND_STACK_CALLOUT)(PVOID Parameter);
typedef EXPAND_STACK_CALLOUT* PEXPAND_STACK_CALLOUT;

KIRQL NTAPI KeGetCurrentIrql(void);
DECLSPEC_NORETURN void NTAPI KeBugCheckOnFastFail(unsigned int Code);
#define __fastfail(Code) KeBugCheckOnFastFail(Code)
#define FAST_FAIL_CORRUPT_LIST_ENTRY 3

void NTAPI KeInitializeEvent(PRKEVENT Event, EVENT_TYPE Type, BOOLEAN State);
LONG NTAPI KeSetEvent(PRKEVENT Event, KPRIORITY Increment, BOOLEAN Wait);
NTSTATUS NTAPI KeWaitForSingleObject(
    PVOID Object, KWAIT_REASON WaitReason, KPROCESSOR_MODE WaitMode, BOOLEAN Alertable, PLARGE_INTEGER Timeout);
NTSTATUS NTAPI KeExpandKernelStackAndCallout(PEXPAND_STACK_CALLOUT Callout, PVOID Parameter, SIZE_T Size);
void NTAPI IoGetStackLimits(PULONG_PTR LowLimit, PULONG_PTR HighLimit);

// Compiled code of an image reads the time from the page that the kernel shares with everybody; this does as well.
void NTAPI KeQuerySystemTime(PLARGE_INTEGER CurrentTime);
void NTAPI ExSystemTimeToLocalTime(PLARGE_INTEGER SystemTime, PLARGE_INTEGER LocalTime);

void FASTCALL ExAcquireFastMutex(PFAST_MUTEX FastMutex);
void FASTCALL ExReleaseFastMutex(PFAST_MUTEX FastMutex);

// The object has a fixed form, so initialising it is no routine of the kernel.
FORCEINLINE void ExInitializeFastMutex(PFAST_MUTEX FastMutex)
{
    FastMutex->Count = FM_LOCK_BIT;
    FastMutex->Owner = nullptr;
    FastMutex->Contention = 0;
    KeInitializeEvent(&FastMutex->Event, SynchronizationEvent, FALSE);
}

PVOID NTAPI ExAllocatePoolWithTag(POOL_TYPE PoolType, SIZE_T NumberOfBytes, ULONG Tag);
void NTAPI ExFreePoolWithTag(PVOID P, ULONG Tag);
void NTAPI ProbeForWrite(volatile void* Address, SIZE_T Length, ULONG Alignment);

void NTAPI MmBuildMdlForNonPagedPool(PMDL MemoryDescriptorList);
PVOID NTAPI MmMapLockedPagesSpecifyCache(PMDL MemoryDescriptorList, KPROCESSOR_MODE AccessMode,
    MEMORY_CACHING_TYPE CacheType, PVOID RequestedAddress, ULONG BugCheckOnFailure, ULONG Priority);
PVOID NTAPI MmGetSystemRoutineAddress(PUNICODE_STRING SystemRoutineName);
