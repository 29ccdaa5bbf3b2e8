#include "hosted/io/device.h"

#include "hosted/io/irp.h"
#include "hosted/ke/bug_check.h"
#include "hosted/ke/failure_injection.h"
#include "hosted/ke/irql.h"
#include "hosted/ob/name_space.h"

#include <mutex>

namespace hosted
{
namespace
{
constexpr CSHORT DeviceObjectKind = 3;
constexpr CSHORT DriverObjectKind = 4;
constexpr ULONG ExclusiveFlag = 0x8;

// The I/O manager's own notes, kept where the device object points to them.
struct DeviceNotes
{
    WideString Name;
    bool DeletePending = false;
    // Kept alive by its devices, which may outlive an unload while they are open. Null for a driver that is no object.
    PDRIVER_OBJECT Driver = nullptr;
};

// Guards the drivers' device lists, the counts of opens and the notes.
std::mutex deviceMutex;

DeviceNotes& NotesOf(PDEVICE_OBJECT device)
{
    if (device->DeviceObjectExtension == nullptr)
    {
        BugCheck("NOT_A_CREATED_DEVICE", "device %p was not made by IoCreateDevice", static_cast<void*>(device));
    }
    return *static_cast<DeviceNotes*>(device->DeviceObjectExtension);
}

void Release(PDEVICE_OBJECT device)
{
    PDRIVER_OBJECT driver = NotesOf(device).Driver;
    delete &NotesOf(device);
    device->DeviceObjectExtension = nullptr;
    DereferenceObject(device);
    if (driver != nullptr)
    {
        DereferenceObject(driver);
    }
}

PDEVICE_OBJECT MakeDevice(PDRIVER_OBJECT driver, ULONG extensionBytes, DEVICE_TYPE type, ULONG characteristics)
{
    auto* device = static_cast<PDEVICE_OBJECT>(CreateObject(DeviceType, sizeof(DEVICE_OBJECT) + extensionBytes));
    device->Type = DeviceObjectKind;
    device->Size = static_cast<USHORT>(sizeof(DEVICE_OBJECT) + extensionBytes);
    device->DriverObject = driver;
    device->Flags = DO_DEVICE_INITIALIZING;
    device->Characteristics = characteristics;
    device->DeviceExtension = extensionBytes == 0 ? nullptr : device + 1;
    device->DeviceType = type;
    device->StackSize = 1;
    auto* notes = new DeviceNotes;
    device->DeviceObjectExtension = notes;
    if (driver->Type == DriverObjectKind)
    {
        ReferenceObject(driver);
        notes->Driver = driver;
    }
    return device;
}

bool Unlink(PDEVICE_OBJECT device)
{
    PDEVICE_OBJECT* link = &device->DriverObject->DeviceObject;
    while (*link != nullptr && *link != device)
    {
        link = &(*link)->NextDevice;
    }
    const bool found = *link == device;
    if (found)
    {
        *link = device->NextDevice;
        device->NextDevice = nullptr;
    }
    return found;
}

NTSTATUS CountOpen(PDEVICE_OBJECT device)
{
    const std::lock_guard lock(deviceMutex);
    if (FlagOn(device->Flags, DO_DEVICE_INITIALIZING) || NotesOf(device).DeletePending)
    {
        return STATUS_NO_SUCH_DEVICE;
    }
    if (FlagOn(device->Flags, ExclusiveFlag) && device->ReferenceCount != 0)
    {
        return STATUS_ACCESS_DENIED;
    }
    ++device->ReferenceCount;
    return STATUS_SUCCESS;
}

void UncountOpen(PDEVICE_OBJECT device)
{
    bool last;
    {
        const std::lock_guard lock(deviceMutex);
        last = --device->ReferenceCount == 0 && NotesOf(device).DeletePending;
    }
    if (last)
    {
        Release(device);
    }
}

NTSTATUS SendPlain(UCHAR majorFunction, PDEVICE_OBJECT device, PFILE_OBJECT file)
{
    RequireIrql(PASSIVE_LEVEL, "open or close of a device");
    PIRP irp = AllocateIrp(device);
    IoGetCurrentIrpStackLocation(irp)->MajorFunction = majorFunction;
    IoGetCurrentIrpStackLocation(irp)->FileObject = file;
    irp->Flags = IRP_SYNCHRONOUS_API;
    irp->RequestorMode = UserMode;
    irp->Tail.Overlay.OriginalFileObject = file;
    return SendIrp(device, irp, 0, nullptr);
}
}

NTSTATUS SendDeviceCreate(PDEVICE_OBJECT device, PFILE_OBJECT file)
{
    NTSTATUS status = CountOpen(device);
    if (NT_SUCCESS(status))
    {
        status = SendPlain(IRP_MJ_CREATE, device, file);
        if (!NT_SUCCESS(status))
        {
            UncountOpen(device);
        }
    }
    return status;
}

NTSTATUS SendDeviceCleanup(PDEVICE_OBJECT device, PFILE_OBJECT file)
{
    return SendPlain(IRP_MJ_CLEANUP, device, file);
}

NTSTATUS SendDeviceClose(PDEVICE_OBJECT device, PFILE_OBJECT file)
{
    const NTSTATUS status = SendPlain(IRP_MJ_CLOSE, device, file);
    UncountOpen(device);
    return status;
}

NTSTATUS SendDeviceWrite(PDEVICE_OBJECT device, PFILE_OBJECT file, void* buffer, ULONG length, LONGLONG offset,
    KPROCESSOR_MODE mode, ULONG_PTR* written)
{
    RequireIrql(PASSIVE_LEVEL, "write to a device");
    if (FlagOn(device->Flags, DO_BUFFERED_IO) && length != 0)
    {
        BugCheck("NOT_MODELLED", "a write to device %p by a system buffer", static_cast<void*>(device));
    }
    PIRP irp = AllocateIrp(device);
    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
    stack->MajorFunction = IRP_MJ_WRITE;
    stack->FileObject = file;
    stack->Parameters.Write.Length = length;
    stack->Parameters.Write.ByteOffset.QuadPart = offset;
    irp->Flags = IRP_WRITE_OPERATION | (FlagOn(file->Flags, FO_SYNCHRONOUS_IO) ? IRP_SYNCHRONOUS_API : 0);
    irp->RequestorMode = mode;
    irp->UserBuffer = buffer;
    irp->Tail.Overlay.OriginalFileObject = file;
    return SendIrp(device, irp, 0, written);
}
}

extern "C" NTSTATUS NTAPI IoCreateDevice(PDRIVER_OBJECT DriverObject, ULONG DeviceExtensionSize,
    PUNICODE_STRING DeviceName, DEVICE_TYPE DeviceType, ULONG DeviceCharacteristics, BOOLEAN Exclusive,
    PDEVICE_OBJECT* DeviceObject)
{
    hosted::RequireIrql(APC_LEVEL, "IoCreateDevice");
    if (hosted::InjectFailure("IoCreateDevice"))
    {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    PDEVICE_OBJECT device = hosted::MakeDevice(DriverObject, DeviceExtensionSize, DeviceType, DeviceCharacteristics);
    if (Exclusive)
    {
        SetFlag(device->Flags, hosted::ExclusiveFlag);
    }
    if (DeviceName != nullptr && DeviceName->Length != 0)
    {
        const NTSTATUS status = hosted::InsertName(hosted::View(*DeviceName), device);
        if (!NT_SUCCESS(status))
        {
            hosted::Release(device);
            return status;
        }
        hosted::NotesOf(device).Name = hosted::View(*DeviceName);
    }
    const std::lock_guard lock(hosted::deviceMutex);
    device->NextDevice = DriverObject->DeviceObject;
    DriverObject->DeviceObject = device;
    *DeviceObject = device;
    return STATUS_SUCCESS;
}

extern "C" void NTAPI IoDeleteDevice(PDEVICE_OBJECT DeviceObject)
{
    hosted::RequireIrql(APC_LEVEL, "IoDeleteDevice");
    hosted::WideString name;
    bool unused;
    {
        const std::lock_guard lock(hosted::deviceMutex);
        hosted::DeviceNotes& notes = hosted::NotesOf(DeviceObject);
        if (notes.DeletePending || !hosted::Unlink(DeviceObject))
        {
            hosted::BugCheck("DEVICE_DELETED_TWICE", "device %p", static_cast<void*>(DeviceObject));
        }
        notes.DeletePending = true;
        name = notes.Name;
        unused = DeviceObject->ReferenceCount == 0;
    }
    if (!name.empty())
    {
        hosted::RemoveName(name);
    }
    if (unused)
    {
        hosted::Release(DeviceObject);
    }
}
