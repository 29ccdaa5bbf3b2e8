// The structures that cross the border between the driver and the platform, with the sizes and offsets that they have
// on 64-bit Windows 7 and later. Compiled in every build, against the DDK and against the hosted kernel's headers: only
// while both agree can the hosted kernel run the shipping image.

#include <ntifs.h>
#include <fltkernel.h>
#include <ntstrsafe.h>
#include <stddef.h>

#define SIZE(Type, Bytes) static_assert(sizeof(Type) == (Bytes))
#define AT(Type, Field, Bytes) static_assert(offsetof(Type, Field) == (Bytes))

// Strings, lists and numbers.

SIZE(UNICODE_STRING, 0x10);
AT(UNICODE_STRING, Length, 0x00);
AT(UNICODE_STRING, MaximumLength, 0x02);
AT(UNICODE_STRING, Buffer, 0x08);

SIZE(LIST_ENTRY, 0x10);
AT(LIST_ENTRY, Flink, 0x00);
AT(LIST_ENTRY, Blink, 0x08);

SIZE(LARGE_INTEGER, 0x8);
AT(LARGE_INTEGER, LowPart, 0x00);
AT(LARGE_INTEGER, HighPart, 0x04);
AT(LARGE_INTEGER, QuadPart, 0x00);

SIZE(CLIENT_ID, 0x10);
AT(CLIENT_ID, UniqueProcess, 0x00);
AT(CLIENT_ID, UniqueThread, 0x08);

SIZE(TIME_FIELDS, 0x10);
AT(TIME_FIELDS, Year, 0x00);
AT(TIME_FIELDS, Month, 0x02);
AT(TIME_FIELDS, Day, 0x04);
AT(TIME_FIELDS, Hour, 0x06);
AT(TIME_FIELDS, Minute, 0x08);
AT(TIME_FIELDS, Second, 0x0a);
AT(TIME_FIELDS, Milliseconds, 0x0c);
AT(TIME_FIELDS, Weekday, 0x0e);

SIZE(RTL_OSVERSIONINFOW, 0x114);
AT(RTL_OSVERSIONINFOW, dwOSVersionInfoSize, 0x00);
AT(RTL_OSVERSIONINFOW, dwMajorVersion, 0x04);
AT(RTL_OSVERSIONINFOW, dwMinorVersion, 0x08);
AT(RTL_OSVERSIONINFOW, dwBuildNumber, 0x0c);
AT(RTL_OSVERSIONINFOW, dwPlatformId, 0x10);
AT(RTL_OSVERSIONINFOW, szCSDVersion, 0x14);

SIZE(RTL_GENERIC_TABLE, 0x48);
AT(RTL_GENERIC_TABLE, TableRoot, 0x00);
AT(RTL_GENERIC_TABLE, InsertOrderList, 0x08);
AT(RTL_GENERIC_TABLE, OrderedPointer, 0x18);
AT(RTL_GENERIC_TABLE, WhichOrderedElement, 0x20);
AT(RTL_GENERIC_TABLE, NumberGenericTableElements, 0x24);
AT(RTL_GENERIC_TABLE, CompareRoutine, 0x28);
AT(RTL_GENERIC_TABLE, AllocateRoutine, 0x30);
AT(RTL_GENERIC_TABLE, FreeRoutine, 0x38);
AT(RTL_GENERIC_TABLE, TableContext, 0x40);

// Objects and synchronisation.

SIZE(OBJECT_ATTRIBUTES, 0x30);
AT(OBJECT_ATTRIBUTES, Length, 0x00);
AT(OBJECT_ATTRIBUTES, RootDirectory, 0x08);
AT(OBJECT_ATTRIBUTES, ObjectName, 0x10);
AT(OBJECT_ATTRIBUTES, Attributes, 0x18);
AT(OBJECT_ATTRIBUTES, SecurityDescriptor, 0x20);
AT(OBJECT_ATTRIBUTES, SecurityQualityOfService, 0x28);

SIZE(IO_STATUS_BLOCK, 0x10);
AT(IO_STATUS_BLOCK, Status, 0x00);
AT(IO_STATUS_BLOCK, Pointer, 0x00);
AT(IO_STATUS_BLOCK, Information, 0x08);

SIZE(DISPATCHER_HEADER, 0x18);
AT(DISPATCHER_HEADER, Type, 0x00);
AT(DISPATCHER_HEADER, Size, 0x02);
AT(DISPATCHER_HEADER, SignalState, 0x04);
AT(DISPATCHER_HEADER, WaitListHead, 0x08);

SIZE(KEVENT, 0x18);
AT(KEVENT, Header, 0x00);

SIZE(FAST_MUTEX, 0x38);
AT(FAST_MUTEX, Count, 0x00);
AT(FAST_MUTEX, Owner, 0x08);
AT(FAST_MUTEX, Contention, 0x10);

// Drivers, devices and files.

SIZE(DRIVER_OBJECT, 0x150);
AT(DRIVER_OBJECT, Type, 0x00);
AT(DRIVER_OBJECT, Size, 0x02);
AT(DRIVER_OBJECT, DeviceObject, 0x08);
AT(DRIVER_OBJECT, Flags, 0x10);
AT(DRIVER_OBJECT, DriverStart, 0x18);
AT(DRIVER_OBJECT, DriverSize, 0x20);
AT(DRIVER_OBJECT, DriverSection, 0x28);
AT(DRIVER_OBJECT, DriverExtension, 0x30);
AT(DRIVER_OBJECT, DriverName, 0x38);
AT(DRIVER_OBJECT, HardwareDatabase, 0x48);
AT(DRIVER_OBJECT, FastIoDispatch, 0x50);
AT(DRIVER_OBJECT, DriverInit, 0x58);
AT(DRIVER_OBJECT, DriverStartIo, 0x60);
AT(DRIVER_OBJECT, DriverUnload, 0x68);
AT(DRIVER_OBJECT, MajorFunction, 0x70);

// Windows rounds the size up to 0x150 by an alignment that the DDK headers lack; only the system allocates devices.
AT(DEVICE_OBJECT, Type, 0x00);
AT(DEVICE_OBJECT, Size, 0x02);
AT(DEVICE_OBJECT, ReferenceCount, 0x04);
AT(DEVICE_OBJECT, DriverObject, 0x08);
AT(DEVICE_OBJECT, NextDevice, 0x10);
AT(DEVICE_OBJECT, AttachedDevice, 0x18);
AT(DEVICE_OBJECT, CurrentIrp, 0x20);
AT(DEVICE_OBJECT, Flags, 0x30);
AT(DEVICE_OBJECT, Characteristics, 0x34);
AT(DEVICE_OBJECT, Vpb, 0x38);
AT(DEVICE_OBJECT, DeviceExtension, 0x40);
AT(DEVICE_OBJECT, DeviceType, 0x48);
AT(DEVICE_OBJECT, StackSize, 0x4c);
AT(DEVICE_OBJECT, AlignmentRequirement, 0x98);
AT(DEVICE_OBJECT, SectorSize, 0x130);
AT(DEVICE_OBJECT, DeviceObjectExtension, 0x138);
AT(DEVICE_OBJECT, Reserved, 0x140);

SIZE(VPB, 0x60);
AT(VPB, Type, 0x00);
AT(VPB, Size, 0x02);
AT(VPB, Flags, 0x04);
AT(VPB, VolumeLabelLength, 0x06);
AT(VPB, DeviceObject, 0x08);
AT(VPB, RealDevice, 0x10);
AT(VPB, SerialNumber, 0x18);
AT(VPB, ReferenceCount, 0x1c);
AT(VPB, VolumeLabel, 0x20);

SIZE(SECTION_OBJECT_POINTERS, 0x18);
AT(SECTION_OBJECT_POINTERS, DataSectionObject, 0x00);
AT(SECTION_OBJECT_POINTERS, SharedCacheMap, 0x08);
AT(SECTION_OBJECT_POINTERS, ImageSectionObject, 0x10);

SIZE(FILE_OBJECT, 0xd8);
AT(FILE_OBJECT, Type, 0x00);
AT(FILE_OBJECT, Size, 0x02);
AT(FILE_OBJECT, DeviceObject, 0x08);
AT(FILE_OBJECT, Vpb, 0x10);
AT(FILE_OBJECT, FsContext, 0x18);
AT(FILE_OBJECT, FsContext2, 0x20);
AT(FILE_OBJECT, SectionObjectPointer, 0x28);
AT(FILE_OBJECT, PrivateCacheMap, 0x30);
AT(FILE_OBJECT, FinalStatus, 0x38);
AT(FILE_OBJECT, RelatedFileObject, 0x40);
AT(FILE_OBJECT, LockOperation, 0x48);
AT(FILE_OBJECT, DeletePending, 0x49);
AT(FILE_OBJECT, ReadAccess, 0x4a);
AT(FILE_OBJECT, WriteAccess, 0x4b);
AT(FILE_OBJECT, DeleteAccess, 0x4c);
AT(FILE_OBJECT, SharedRead, 0x4d);
AT(FILE_OBJECT, SharedWrite, 0x4e);
AT(FILE_OBJECT, SharedDelete, 0x4f);
AT(FILE_OBJECT, Flags, 0x50);
AT(FILE_OBJECT, FileName, 0x58);
AT(FILE_OBJECT, CurrentByteOffset, 0x68);
AT(FILE_OBJECT, Waiters, 0x70);
AT(FILE_OBJECT, Busy, 0x74);
AT(FILE_OBJECT, LastLock, 0x78);
AT(FILE_OBJECT, Lock, 0x80);
AT(FILE_OBJECT, Event, 0x98);
AT(FILE_OBJECT, CompletionContext, 0xb0);
AT(FILE_OBJECT, IrpListLock, 0xb8);
AT(FILE_OBJECT, IrpList, 0xc0);
AT(FILE_OBJECT, FileObjectExtension, 0xd0);

SIZE(FSRTL_COMMON_FCB_HEADER, 0x30);
AT(FSRTL_COMMON_FCB_HEADER, NodeTypeCode, 0x00);
AT(FSRTL_COMMON_FCB_HEADER, NodeByteSize, 0x02);
AT(FSRTL_COMMON_FCB_HEADER, Flags, 0x04);
AT(FSRTL_COMMON_FCB_HEADER, IsFastIoPossible, 0x05);
AT(FSRTL_COMMON_FCB_HEADER, Flags2, 0x06);
AT(FSRTL_COMMON_FCB_HEADER, Resource, 0x08);
AT(FSRTL_COMMON_FCB_HEADER, PagingIoResource, 0x10);
AT(FSRTL_COMMON_FCB_HEADER, AllocationSize, 0x18);
AT(FSRTL_COMMON_FCB_HEADER, FileSize, 0x20);
AT(FSRTL_COMMON_FCB_HEADER, ValidDataLength, 0x28);

// Requests.

SIZE(MDL, 0x30);
AT(MDL, Next, 0x00);
AT(MDL, Size, 0x08);
AT(MDL, MdlFlags, 0x0a);
AT(MDL, Process, 0x10);
AT(MDL, MappedSystemVa, 0x18);
AT(MDL, StartVa, 0x20);
AT(MDL, ByteCount, 0x28);
AT(MDL, ByteOffset, 0x2c);

SIZE(IRP, 0xd0);
AT(IRP, Type, 0x00);
AT(IRP, Size, 0x02);
AT(IRP, MdlAddress, 0x08);
AT(IRP, Flags, 0x10);
AT(IRP, AssociatedIrp, 0x18);
AT(IRP, IoStatus, 0x30);
AT(IRP, RequestorMode, 0x40);
AT(IRP, PendingReturned, 0x41);
AT(IRP, StackCount, 0x42);
AT(IRP, CurrentLocation, 0x43);
AT(IRP, Cancel, 0x44);
AT(IRP, CancelIrql, 0x45);
AT(IRP, UserIosb, 0x48);
AT(IRP, UserEvent, 0x50);
AT(IRP, CancelRoutine, 0x68);
AT(IRP, UserBuffer, 0x70);
AT(IRP, Tail.Overlay.Thread, 0x98);
AT(IRP, Tail.Overlay.CurrentStackLocation, 0xb8);
AT(IRP, Tail.Overlay.OriginalFileObject, 0xc0);

SIZE(IO_STACK_LOCATION, 0x48);
AT(IO_STACK_LOCATION, MajorFunction, 0x00);
AT(IO_STACK_LOCATION, MinorFunction, 0x01);
AT(IO_STACK_LOCATION, Flags, 0x02);
AT(IO_STACK_LOCATION, Control, 0x03);
AT(IO_STACK_LOCATION, Parameters, 0x08);
AT(IO_STACK_LOCATION, Parameters.Write.Length, 0x08);
AT(IO_STACK_LOCATION, Parameters.Write.Key, 0x10);
AT(IO_STACK_LOCATION, Parameters.Write.ByteOffset, 0x18);
AT(IO_STACK_LOCATION, Parameters.DeviceIoControl.OutputBufferLength, 0x08);
AT(IO_STACK_LOCATION, Parameters.DeviceIoControl.InputBufferLength, 0x10);
AT(IO_STACK_LOCATION, Parameters.DeviceIoControl.IoControlCode, 0x18);
AT(IO_STACK_LOCATION, Parameters.DeviceIoControl.Type3InputBuffer, 0x20);
AT(IO_STACK_LOCATION, DeviceObject, 0x28);
AT(IO_STACK_LOCATION, FileObject, 0x30);
AT(IO_STACK_LOCATION, CompletionRoutine, 0x38);
AT(IO_STACK_LOCATION, Context, 0x40);

// What queries and notifications hand over.

SIZE(PS_CREATE_NOTIFY_INFO, 0x48);
AT(PS_CREATE_NOTIFY_INFO, Size, 0x00);
AT(PS_CREATE_NOTIFY_INFO, Flags, 0x08);
AT(PS_CREATE_NOTIFY_INFO, ParentProcessId, 0x10);
AT(PS_CREATE_NOTIFY_INFO, CreatingThreadId, 0x18);
AT(PS_CREATE_NOTIFY_INFO, FileObject, 0x28);
AT(PS_CREATE_NOTIFY_INFO, ImageFileName, 0x30);
AT(PS_CREATE_NOTIFY_INFO, CommandLine, 0x38);
AT(PS_CREATE_NOTIFY_INFO, CreationStatus, 0x40);

SIZE(KEY_VALUE_PARTIAL_INFORMATION, 0x10);
AT(KEY_VALUE_PARTIAL_INFORMATION, TitleIndex, 0x00);
AT(KEY_VALUE_PARTIAL_INFORMATION, Type, 0x04);
AT(KEY_VALUE_PARTIAL_INFORMATION, DataLength, 0x08);
AT(KEY_VALUE_PARTIAL_INFORMATION, Data, 0x0c);

SIZE(FILE_BOTH_DIR_INFORMATION, 0x60);
AT(FILE_BOTH_DIR_INFORMATION, NextEntryOffset, 0x00);
AT(FILE_BOTH_DIR_INFORMATION, FileIndex, 0x04);
AT(FILE_BOTH_DIR_INFORMATION, CreationTime, 0x08);
AT(FILE_BOTH_DIR_INFORMATION, LastAccessTime, 0x10);
AT(FILE_BOTH_DIR_INFORMATION, LastWriteTime, 0x18);
AT(FILE_BOTH_DIR_INFORMATION, ChangeTime, 0x20);
AT(FILE_BOTH_DIR_INFORMATION, EndOfFile, 0x28);
AT(FILE_BOTH_DIR_INFORMATION, AllocationSize, 0x30);
AT(FILE_BOTH_DIR_INFORMATION, FileAttributes, 0x38);
AT(FILE_BOTH_DIR_INFORMATION, FileNameLength, 0x3c);
AT(FILE_BOTH_DIR_INFORMATION, EaSize, 0x40);
AT(FILE_BOTH_DIR_INFORMATION, ShortNameLength, 0x44);
AT(FILE_BOTH_DIR_INFORMATION, ShortName, 0x46);
AT(FILE_BOTH_DIR_INFORMATION, FileName, 0x5e);

SIZE(FILE_ID_BOTH_DIR_INFORMATION, 0x70);
AT(FILE_ID_BOTH_DIR_INFORMATION, NextEntryOffset, 0x00);
AT(FILE_ID_BOTH_DIR_INFORMATION, FileAttributes, 0x38);
AT(FILE_ID_BOTH_DIR_INFORMATION, FileNameLength, 0x3c);
AT(FILE_ID_BOTH_DIR_INFORMATION, ShortName, 0x46);
AT(FILE_ID_BOTH_DIR_INFORMATION, FileId, 0x60);
AT(FILE_ID_BOTH_DIR_INFORMATION, FileName, 0x68);

SIZE(FILE_END_OF_FILE_INFORMATION, 0x8);
AT(FILE_END_OF_FILE_INFORMATION, EndOfFile, 0x00);

SIZE(SYSTEM_PROCESS_INFORMATION, 0x100);
AT(SYSTEM_PROCESS_INFORMATION, NextEntryOffset, 0x00);
AT(SYSTEM_PROCESS_INFORMATION, NumberOfThreads, 0x04);
AT(SYSTEM_PROCESS_INFORMATION, CreateTime, 0x20);
AT(SYSTEM_PROCESS_INFORMATION, UserTime, 0x28);
AT(SYSTEM_PROCESS_INFORMATION, KernelTime, 0x30);
AT(SYSTEM_PROCESS_INFORMATION, ImageName, 0x38);
AT(SYSTEM_PROCESS_INFORMATION, BasePriority, 0x48);
AT(SYSTEM_PROCESS_INFORMATION, UniqueProcessId, 0x50);
AT(SYSTEM_PROCESS_INFORMATION, InheritedFromUniqueProcessId, 0x58);
AT(SYSTEM_PROCESS_INFORMATION, HandleCount, 0x60);
AT(SYSTEM_PROCESS_INFORMATION, SessionId, 0x64);

// Filter Manager.

SIZE(FLT_PARAMETERS, 0x30);
AT(FLT_PARAMETERS, Create.SecurityContext, 0x00);
AT(FLT_PARAMETERS, Create.Options, 0x08);
AT(FLT_PARAMETERS, Create.FileAttributes, 0x10);
AT(FLT_PARAMETERS, Create.ShareAccess, 0x12);
AT(FLT_PARAMETERS, Create.EaLength, 0x18);
AT(FLT_PARAMETERS, Create.EaBuffer, 0x20);
AT(FLT_PARAMETERS, Create.AllocationSize, 0x28);
AT(FLT_PARAMETERS, Read.Length, 0x00);
AT(FLT_PARAMETERS, Read.Key, 0x08);
AT(FLT_PARAMETERS, Read.ByteOffset, 0x10);
AT(FLT_PARAMETERS, Read.ReadBuffer, 0x18);
AT(FLT_PARAMETERS, Read.MdlAddress, 0x20);
AT(FLT_PARAMETERS, Write.Length, 0x00);
AT(FLT_PARAMETERS, Write.Key, 0x08);
AT(FLT_PARAMETERS, Write.ByteOffset, 0x10);
AT(FLT_PARAMETERS, Write.WriteBuffer, 0x18);
AT(FLT_PARAMETERS, Write.MdlAddress, 0x20);
AT(FLT_PARAMETERS, SetFileInformation.Length, 0x00);
AT(FLT_PARAMETERS, SetFileInformation.FileInformationClass, 0x08);
AT(FLT_PARAMETERS, SetFileInformation.ParentOfTarget, 0x10);
AT(FLT_PARAMETERS, SetFileInformation.InfoBuffer, 0x20);

SIZE(FLT_IO_PARAMETER_BLOCK, 0x48);
AT(FLT_IO_PARAMETER_BLOCK, IrpFlags, 0x00);
AT(FLT_IO_PARAMETER_BLOCK, MajorFunction, 0x04);
AT(FLT_IO_PARAMETER_BLOCK, MinorFunction, 0x05);
AT(FLT_IO_PARAMETER_BLOCK, OperationFlags, 0x06);
AT(FLT_IO_PARAMETER_BLOCK, TargetFileObject, 0x08);
AT(FLT_IO_PARAMETER_BLOCK, TargetInstance, 0x10);
AT(FLT_IO_PARAMETER_BLOCK, Parameters, 0x18);

SIZE(FLT_CALLBACK_DATA, 0x58);
AT(FLT_CALLBACK_DATA, Flags, 0x00);
AT(FLT_CALLBACK_DATA, Thread, 0x08);
AT(FLT_CALLBACK_DATA, Iopb, 0x10);
AT(FLT_CALLBACK_DATA, IoStatus, 0x18);
AT(FLT_CALLBACK_DATA, TagData, 0x28);
AT(FLT_CALLBACK_DATA, RequestorMode, 0x50);

SIZE(FLT_RELATED_OBJECTS, 0x30);
AT(FLT_RELATED_OBJECTS, Size, 0x00);
AT(FLT_RELATED_OBJECTS, TransactionContext, 0x02);
AT(FLT_RELATED_OBJECTS, Filter, 0x08);
AT(FLT_RELATED_OBJECTS, Volume, 0x10);
AT(FLT_RELATED_OBJECTS, Instance, 0x18);
AT(FLT_RELATED_OBJECTS, FileObject, 0x20);
AT(FLT_RELATED_OBJECTS, Transaction, 0x28);

SIZE(FLT_CONTEXT_REGISTRATION, 0x38);
AT(FLT_CONTEXT_REGISTRATION, ContextType, 0x00);
AT(FLT_CONTEXT_REGISTRATION, Flags, 0x02);
AT(FLT_CONTEXT_REGISTRATION, ContextCleanupCallback, 0x08);
AT(FLT_CONTEXT_REGISTRATION, Size, 0x10);
AT(FLT_CONTEXT_REGISTRATION, PoolTag, 0x18);
AT(FLT_CONTEXT_REGISTRATION, ContextAllocateCallback, 0x20);
AT(FLT_CONTEXT_REGISTRATION, ContextFreeCallback, 0x28);
AT(FLT_CONTEXT_REGISTRATION, Reserved1, 0x30);

SIZE(FLT_OPERATION_REGISTRATION, 0x20);
AT(FLT_OPERATION_REGISTRATION, MajorFunction, 0x00);
AT(FLT_OPERATION_REGISTRATION, Flags, 0x04);
AT(FLT_OPERATION_REGISTRATION, PreOperation, 0x08);
AT(FLT_OPERATION_REGISTRATION, PostOperation, 0x10);
AT(FLT_OPERATION_REGISTRATION, Reserved1, 0x18);

SIZE(FLT_REGISTRATION, 0x68);
AT(FLT_REGISTRATION, Size, 0x00);
AT(FLT_REGISTRATION, Version, 0x02);
AT(FLT_REGISTRATION, Flags, 0x04);
AT(FLT_REGISTRATION, ContextRegistration, 0x08);
AT(FLT_REGISTRATION, OperationRegistration, 0x10);
AT(FLT_REGISTRATION, FilterUnloadCallback, 0x18);
AT(FLT_REGISTRATION, InstanceSetupCallback, 0x20);
AT(FLT_REGISTRATION, InstanceQueryTeardownCallback, 0x28);
AT(FLT_REGISTRATION, InstanceTeardownStartCallback, 0x30);
AT(FLT_REGISTRATION, InstanceTeardownCompleteCallback, 0x38);
AT(FLT_REGISTRATION, GenerateFileNameCallback, 0x40);
AT(FLT_REGISTRATION, NormalizeNameComponentCallback, 0x48);
AT(FLT_REGISTRATION, NormalizeContextCleanupCallback, 0x50);
AT(FLT_REGISTRATION, TransactionNotificationCallback, 0x58);
AT(FLT_REGISTRATION, NormalizeNameComponentExCallback, 0x60);

SIZE(FLT_FILE_NAME_INFORMATION, 0x78);
AT(FLT_FILE_NAME_INFORMATION, Size, 0x00);
AT(FLT_FILE_NAME_INFORMATION, NamesParsed, 0x02);
AT(FLT_FILE_NAME_INFORMATION, Format, 0x04);
AT(FLT_FILE_NAME_INFORMATION, Name, 0x08);
AT(FLT_FILE_NAME_INFORMATION, Volume, 0x18);
AT(FLT_FILE_NAME_INFORMATION, Share, 0x28);
AT(FLT_FILE_NAME_INFORMATION, Extension, 0x38);
AT(FLT_FILE_NAME_INFORMATION, Stream, 0x48);
AT(FLT_FILE_NAME_INFORMATION, FinalComponent, 0x58);
AT(FLT_FILE_NAME_INFORMATION, ParentDir, 0x68);
