// The Filter Manager's interfaces, as far as the driver uses them. The MinGW DDK has no such header.
// Include <ntifs.h> first. Sizes and offsets are those of 64-bit Windows 7 and later.
#pragma once

#include <ntifs.h>

extern "C"
{
typedef struct _FLT_FILTER* PFLT_FILTER;
typedef struct _FLT_VOLUME* PFLT_VOLUME;
typedef struct _FLT_INSTANCE* PFLT_INSTANCE;
typedef struct _KTRANSACTION* PKTRANSACTION;
typedef PVOID PFLT_CONTEXT;
typedef USHORT FLT_CONTEXT_TYPE;
typedef USHORT FLT_CONTEXT_REGISTRATION_FLAGS;
typedef ULONG FLT_REGISTRATION_FLAGS;
typedef ULONG FLT_FILTER_UNLOAD_FLAGS;
typedef ULONG FLT_INSTANCE_SETUP_FLAGS;
typedef ULONG FLT_OPERATION_REGISTRATION_FLAGS;
typedef ULONG FLT_POST_OPERATION_FLAGS;
typedef ULONG FLT_CALLBACK_DATA_FLAGS;
typedef ULONG FLT_FILE_NAME_OPTIONS;
typedef USHORT FLT_FILE_NAME_PARSED_FLAGS;

#define FLT_STREAM_CONTEXT 0x0008
#define FLT_CONTEXT_END 0xffff

#define FLT_REGISTRATION_VERSION_0202 0x0202

#define FLTFL_CALLBACK_DATA_DIRTY 0x80000000
#define FLTFL_CALLBACK_DATA_IRP_OPERATION 0x00000001
#define FLTFL_CALLBACK_DATA_FAST_IO_OPERATION 0x00000002
#define FLTFL_CALLBACK_DATA_FS_FILTER_OPERATION 0x00000004
#define FLTFL_CALLBACK_DATA_SYSTEM_BUFFER 0x00000008
#define FLTFL_CALLBACK_DATA_POST_OPERATION 0x00040000

#define FLTFL_POST_OPERATION_DRAINING 0x00000001

#define FLT_FILE_NAME_NORMALIZED 0x01
#define FLT_FILE_NAME_OPENED 0x02
#define FLT_FILE_NAME_SHORT 0x03
#define FLT_FILE_NAME_QUERY_DEFAULT 0x0100
#define FLT_FILE_NAME_QUERY_CACHE_ONLY 0x0200
#define FLT_FILE_NAME_QUERY_FILESYSTEM_ONLY 0x0300
#define FLT_FILE_NAME_QUERY_ALWAYS_ALLOW_CACHE_LOOKUP 0x0400

#define FLTFL_FILE_NAME_PARSED_FINAL_COMPONENT 0x0001
#define FLTFL_FILE_NAME_PARSED_EXTENSION 0x0002
#define FLTFL_FILE_NAME_PARSED_STREAM 0x0004
#define FLTFL_FILE_NAME_PARSED_PARENT_DIR 0x0008

#define IRP_MJ_OPERATION_END ((UCHAR)0x80)

#define FLT_IS_FASTIO_OPERATION(Data) (((Data)->Flags & FLTFL_CALLBACK_DATA_FAST_IO_OPERATION) != 0)
#define FLT_IS_IRP_OPERATION(Data) (((Data)->Flags & FLTFL_CALLBACK_DATA_IRP_OPERATION) != 0)

typedef enum _FLT_PREOP_CALLBACK_STATUS
{
    FLT_PREOP_SUCCESS_WITH_CALLBACK,
    FLT_PREOP_SUCCESS_NO_CALLBACK,
    FLT_PREOP_PENDING,
    FLT_PREOP_DISALLOW_FASTIO,
    FLT_PREOP_COMPLETE,
    FLT_PREOP_SYNCHRONIZE
} FLT_PREOP_CALLBACK_STATUS;

typedef enum _FLT_POSTOP_CALLBACK_STATUS
{
    FLT_POSTOP_FINISHED_PROCESSING,
    FLT_POSTOP_MORE_PROCESSING_REQUIRED
} FLT_POSTOP_CALLBACK_STATUS;

typedef enum _FLT_FILESYSTEM_TYPE
{
    FLT_FSTYPE_UNKNOWN,
    FLT_FSTYPE_RAW,
    FLT_FSTYPE_NTFS,
    FLT_FSTYPE_FAT
} FLT_FILESYSTEM_TYPE;

typedef enum _FLT_SET_CONTEXT_OPERATION
{
    FLT_SET_CONTEXT_REPLACE_IF_EXISTS,
    FLT_SET_CONTEXT_KEEP_IF_EXISTS
} FLT_SET_CONTEXT_OPERATION;

// The parameters of one operation. Options of a create hold the disposition in their top byte.
typedef union _FLT_PARAMETERS
{
    struct
    {
        PVOID SecurityContext;
        ULONG Options;
        USHORT __attribute__((aligned(8))) FileAttributes;
        USHORT ShareAccess;
        ULONG __attribute__((aligned(8))) EaLength;
        PVOID EaBuffer;
        LARGE_INTEGER AllocationSize;
    } Create;
    struct
    {
        ULONG Length;
        ULONG __attribute__((aligned(8))) Key;
        LARGE_INTEGER ByteOffset;
        PVOID ReadBuffer;
        PMDL MdlAddress;
    } Read;
    struct
    {
        ULONG Length;
        ULONG __attribute__((aligned(8))) Key;
        LARGE_INTEGER ByteOffset;
        PVOID WriteBuffer;
        PMDL MdlAddress;
    } Write;
    struct
    {
        ULONG Length;
        FILE_INFORMATION_CLASS __attribute__((aligned(8))) FileInformationClass;
        PVOID InfoBuffer;
    } QueryFileInformation;
    struct
    {
        ULONG Length;
        FILE_INFORMATION_CLASS __attribute__((aligned(8))) FileInformationClass;
        PFILE_OBJECT ParentOfTarget;
        union
        {
            struct
            {
                BOOLEAN ReplaceIfExists;
                BOOLEAN AdvanceOnly;
            };
            ULONG ClusterCount;
            HANDLE DeleteHandle;
        };
        PVOID InfoBuffer;
    } SetFileInformation;
    struct
    {
        ULONG Length;
        PUNICODE_STRING FileName;
        FILE_INFORMATION_CLASS FileInformationClass;
        ULONG __attribute__((aligned(8))) FileIndex;
        PVOID DirectoryBuffer;
        PMDL MdlAddress;
    } QueryDirectory;
    struct
    {
        PVOID Argument1;
        PVOID Argument2;
        PVOID Argument3;
        PVOID Argument4;
        PVOID Argument5;
        LARGE_INTEGER Argument6;
    } Others;
} FLT_PARAMETERS, *PFLT_PARAMETERS;

typedef struct _FLT_IO_PARAMETER_BLOCK
{
    ULONG IrpFlags;
    UCHAR MajorFunction;
    UCHAR MinorFunction;
    UCHAR OperationFlags;
    UCHAR Reserved;
    PFILE_OBJECT TargetFileObject;
    PFLT_INSTANCE TargetInstance;
    FLT_PARAMETERS Parameters;
} FLT_IO_PARAMETER_BLOCK, *PFLT_IO_PARAMETER_BLOCK;

typedef struct _FLT_CALLBACK_DATA
{
    FLT_CALLBACK_DATA_FLAGS Flags;
    PETHREAD const Thread;
    PFLT_IO_PARAMETER_BLOCK const Iopb;
    IO_STATUS_BLOCK IoStatus;
    PVOID TagData;
    union
    {
        struct
        {
            LIST_ENTRY QueueLinks;
            PVOID QueueContext[2];
        };
        PVOID FilterContext[4];
    };
    KPROCESSOR_MODE RequestorMode;
} FLT_CALLBACK_DATA, *PFLT_CALLBACK_DATA;

typedef struct _FLT_RELATED_OBJECTS
{
    USHORT const Size;
    USHORT const TransactionContext;
    PFLT_FILTER const Filter;
    PFLT_VOLUME const Volume;
    PFLT_INSTANCE const Instance;
    PFILE_OBJECT const FileObject;
    PKTRANSACTION const Transaction;
} FLT_RELATED_OBJECTS;
typedef const FLT_RELATED_OBJECTS* PCFLT_RELATED_OBJECTS;

typedef struct _FLT_FILE_NAME_INFORMATION
{
    USHORT Size;
    FLT_FILE_NAME_PARSED_FLAGS NamesParsed;
    FLT_FILE_NAME_OPTIONS Format;
    UNICODE_STRING Name;
    UNICODE_STRING Volume;
    UNICODE_STRING Share;
    UNICODE_STRING Extension;
    UNICODE_STRING Stream;
    UNICODE_STRING FinalComponent;
    UNICODE_STRING ParentDir;
} FLT_FILE_NAME_INFORMATION, *PFLT_FILE_NAME_INFORMATION;

typedef FLT_PREOP_CALLBACK_STATUS(NTAPI* PFLT_PRE_OPERATION_CALLBACK)(
    PFLT_CALLBACK_DATA Data, PCFLT_RELATED_OBJECTS FltObjects, PVOID* CompletionContext);
typedef FLT_POSTOP_CALLBACK_STATUS(NTAPI* PFLT_POST_OPERATION_CALLBACK)(
    PFLT_CALLBACK_DATA Data, PCFLT_RELATED_OBJECTS FltObjects, PVOID CompletionContext, FLT_POST_OPERATION_FLAGS Flags);
typedef NTSTATUS(NTAPI* PFLT_FILTER_UNLOAD_CALLBACK)(FLT_FILTER_UNLOAD_FLAGS Flags);
typedef NTSTATUS(NTAPI* PFLT_INSTANCE_SETUP_CALLBACK)(PCFLT_RELATED_OBJECTS FltObjects, FLT_INSTANCE_SETUP_FLAGS Flags,
    DEVICE_TYPE VolumeDeviceType, FLT_FILESYSTEM_TYPE VolumeFilesystemType);
typedef void(NTAPI* PFLT_CONTEXT_CLEANUP_CALLBACK)(PFLT_CONTEXT Context, FLT_CONTEXT_TYPE ContextType);

typedef struct _FLT_OPERATION_REGISTRATION
{
    UCHAR MajorFunction;
    FLT_OPERATION_REGISTRATION_FLAGS Flags;
    PFLT_PRE_OPERATION_CALLBACK PreOperation;
    PFLT_POST_OPERATION_CALLBACK PostOperation;
    PVOID Reserved1;
} FLT_OPERATION_REGISTRATION, *PFLT_OPERATION_REGISTRATION;

typedef struct _FLT_CONTEXT_REGISTRATION
{
    FLT_CONTEXT_TYPE ContextType;
    FLT_CONTEXT_REGISTRATION_FLAGS Flags;
    PFLT_CONTEXT_CLEANUP_CALLBACK ContextCleanupCallback;
    SIZE_T Size;
    ULONG PoolTag;
    PVOID ContextAllocateCallback;
    PVOID ContextFreeCallback;
    PVOID Reserved1;
} FLT_CONTEXT_REGISTRATION, *PFLT_CONTEXT_REGISTRATION;

// The form of version 0x0202, which Windows 7 and everything later accept. Callbacks that the driver never
// supplies are plain pointers.
typedef struct _FLT_REGISTRATION
{
    USHORT Size;
    USHORT Version;
    FLT_REGISTRATION_FLAGS Flags;
    const FLT_CONTEXT_REGISTRATION* ContextRegistration;
    const FLT_OPERATION_REGISTRATION* OperationRegistration;
    PFLT_FILTER_UNLOAD_CALLBACK FilterUnloadCallback;
    PFLT_INSTANCE_SETUP_CALLBACK InstanceSetupCallback;
    PVOID InstanceQueryTeardownCallback;
    PVOID InstanceTeardownStartCallback;
    PVOID InstanceTeardownCompleteCallback;
    PVOID GenerateFileNameCallback;
    PVOID NormalizeNameComponentCallback;
    PVOID NormalizeContextCleanupCallback;
    PVOID TransactionNotificationCallback;
    PVOID NormalizeNameComponentExCallback;
} FLT_REGISTRATION, *PFLT_REGISTRATION;

NTSTATUS NTAPI FltRegisterFilter(PDRIVER_OBJECT Driver, const FLT_REGISTRATION* Registration, PFLT_FILTER* RetFilter);
void NTAPI FltUnregisterFilter(PFLT_FILTER Filter);
NTSTATUS NTAPI FltStartFiltering(PFLT_FILTER Filter);

NTSTATUS NTAPI FltAllocateContext(PFLT_FILTER Filter, FLT_CONTEXT_TYPE ContextType, SIZE_T ContextSize,
    POOL_TYPE PoolType, PFLT_CONTEXT* ReturnedContext);
void NTAPI FltReleaseContext(PFLT_CONTEXT Context);
NTSTATUS NTAPI FltSetStreamContext(PFLT_INSTANCE Instance, PFILE_OBJECT FileObject, FLT_SET_CONTEXT_OPERATION Operation,
    PFLT_CONTEXT NewContext, PFLT_CONTEXT* OldContext);
NTSTATUS NTAPI FltGetStreamContext(PFLT_INSTANCE Instance, PFILE_OBJECT FileObject, PFLT_CONTEXT* Context);

NTSTATUS NTAPI FltIsDirectory(PFILE_OBJECT FileObject, PFLT_INSTANCE Instance, PBOOLEAN IsDirectory);
NTSTATUS NTAPI FltGetVolumeName(PFLT_VOLUME Volume, PUNICODE_STRING VolumeName, PULONG BufferSizeNeeded);
NTSTATUS NTAPI FltGetFileNameInformation(PFLT_CALLBACK_DATA CallbackData, FLT_FILE_NAME_OPTIONS NameOptions,
    PFLT_FILE_NAME_INFORMATION* FileNameInformation);
NTSTATUS NTAPI FltParseFileNameInformation(PFLT_FILE_NAME_INFORMATION FileNameInformation);
void NTAPI FltReleaseFileNameInformation(PFLT_FILE_NAME_INFORMATION FileNameInformation);

HANDLE NTAPI FltGetRequestorProcessIdEx(PFLT_CALLBACK_DATA CallbackData);
void NTAPI FltSetCallbackDataDirty(PFLT_CALLBACK_DATA Data);
PVOID NTAPI FltAllocatePoolAlignedWithTag(PFLT_INSTANCE Instance, POOL_TYPE PoolType, SIZE_T NumberOfBytes, ULONG Tag);
void NTAPI FltFreePoolAlignedWithTag(PFLT_INSTANCE Instance, PVOID Buffer, ULONG Tag);
}
