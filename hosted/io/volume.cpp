#include "hosted/io/volume_registry.h"

#include "hosted/io/request.h"
#include "hosted/ke/bug_check.h"
#include "hosted/ke/failure_injection.h"
#include "hosted/ke/irql.h"
#include "hosted/ob/name_space.h"

#include <cstring>
#include <map>
#include <mutex>
#include <shared_mutex>

namespace hosted
{
namespace
{
constexpr CSHORT IoTypeDevice = 3;
constexpr CSHORT IoTypeVpb = 10;
constexpr USHORT VpbMounted = 0x0001;
constexpr USHORT SmallestDeviceSector = 512;
constexpr ULONG DosNameTag = 'DoVM';

struct MountedVolume
{
    std::unique_ptr<Volume> Owned;
    LONG OpenFiles = 0;
    bool OwnsVpb = false;
};

struct Registry
{
    std::shared_mutex Mutex;
    std::map<Volume*, MountedVolume> Volumes;
    std::map<PDEVICE_OBJECT, Volume*> Devices;
};

Registry& Mounted()
{
    static auto& registry = *new Registry;
    return registry;
}

PDEVICE_OBJECT NewDevice(DEVICE_TYPE kind, ULONG sectorSize)
{
    const auto device = static_cast<PDEVICE_OBJECT>(CreateObject(DeviceType, sizeof(DEVICE_OBJECT)));
    device->Type = IoTypeDevice;
    device->Size = sizeof(DEVICE_OBJECT);
    device->DeviceType = kind;
    device->StackSize = 1;
    device->SectorSize = static_cast<USHORT>(sectorSize);
    return device;
}

// A local volume is a disk device with a file system's device mounted on it; a redirector has one device for both.
void MakeDevices(Volume* volume, MountedVolume* entry)
{
    const bool network = volume->DeviceKind == FILE_DEVICE_NETWORK_FILE_SYSTEM;
    if (volume->Disk == nullptr)
    {
        const ULONG sector = volume->SectorSize == 1 ? SmallestDeviceSector : volume->SectorSize;
        volume->Disk = NewDevice(network ? volume->DeviceKind : FILE_DEVICE_DISK, sector);
    }
    else
    {
        ReferenceObject(volume->Disk);
    }
    if (volume->FileSystemDevice == nullptr)
    {
        volume->FileSystemDevice = network ? volume->Disk : NewDevice(volume->DeviceKind, volume->Disk->SectorSize);
    }
    else
    {
        ReferenceObject(volume->FileSystemDevice);
    }
    if (!network && volume->Vpb == nullptr)
    {
        volume->Vpb = new VPB{};
        volume->Vpb->Type = IoTypeVpb;
        volume->Vpb->Size = sizeof(VPB);
        volume->Vpb->Flags = VpbMounted;
        volume->Vpb->DeviceObject = volume->FileSystemDevice;
        volume->Vpb->RealDevice = volume->Disk;
        entry->OwnsVpb = true;
    }
    volume->Disk->Vpb = volume->Vpb;
}

void RequireSuccess(NTSTATUS status, const char* what, WideView name)
{
    if (!NT_SUCCESS(status))
    {
        BugCheck("VOLUME_NAME", "%s \"%s\": 0x%08x", what, Narrow(name).c_str(), static_cast<unsigned>(status));
    }
}

WideString DriveLink(const Volume& volume)
{
    return WideString(L"\\??\\") + volume.DosName;
}
}

Volume* MountVolume(std::unique_ptr<Volume> volume)
{
    Volume* mounted = volume.get();
    MountedVolume entry;
    MakeDevices(mounted, &entry);
    entry.Owned = std::move(volume);
    {
        std::unique_lock guard(Mounted().Mutex);
        Mounted().Devices[mounted->Disk] = mounted;
        Mounted().Devices[mounted->FileSystemDevice] = mounted;
        Mounted().Volumes.emplace(mounted, std::move(entry));
    }
    RequireSuccess(InsertName(mounted->DeviceName, mounted->Disk), "naming the device", mounted->DeviceName);
    if (!mounted->DosName.empty())
    {
        RequireSuccess(InsertSymbolicLink(DriveLink(*mounted), mounted->DeviceName), "linking", mounted->DosName);
    }
    if (VolumeFilters* filters = FiltersOfVolumes())
    {
        filters->VolumeMounted(mounted);
    }
    return mounted;
}

void DismountVolume(Volume* volume)
{
    // No name leads to the volume any more, then nothing can be open on it.
    if (!volume->DosName.empty())
    {
        RequireSuccess(RemoveSymbolicLink(DriveLink(*volume)), "unlinking", volume->DosName);
    }
    RequireSuccess(RemoveName(volume->DeviceName), "removing the device's name", volume->DeviceName);
    {
        std::shared_lock guard(Mounted().Mutex);
        const auto entry = Mounted().Volumes.find(volume);
        const LONG open =
            entry == Mounted().Volumes.end() ? 0 : __atomic_load_n(&entry->second.OpenFiles, __ATOMIC_ACQUIRE);
        if (entry == Mounted().Volumes.end() || open != 0)
        {
            BugCheck("VOLUME_IN_USE", "dismounted with %d open file objects", open);
        }
    }
    if (VolumeFilters* filters = FiltersOfVolumes())
    {
        filters->VolumeDismounted(volume);
    }

    MountedVolume entry;
    {
        std::unique_lock guard(Mounted().Mutex);
        Mounted().Devices.erase(volume->Disk);
        Mounted().Devices.erase(volume->FileSystemDevice);
        entry = std::move(Mounted().Volumes.extract(volume).mapped());
    }
    volume->Files.reset();
    if (volume->FileSystemDevice != volume->Disk)
    {
        DereferenceObject(volume->FileSystemDevice);
    }
    volume->Disk->Vpb = nullptr;
    DereferenceObject(volume->Disk);
    if (entry.OwnsVpb)
    {
        delete volume->Vpb;
    }
}

Volume* VolumeOf(PDEVICE_OBJECT device)
{
    std::shared_lock guard(Mounted().Mutex);
    const auto found = Mounted().Devices.find(device);
    return found == Mounted().Devices.end() ? nullptr : found->second;
}

void CountOpenFile(Volume* volume, int change)
{
    std::shared_lock guard(Mounted().Mutex);
    __atomic_fetch_add(&Mounted().Volumes.at(volume).OpenFiles, change, __ATOMIC_ACQ_REL);
}
}

using namespace hosted;

extern "C" NTSTATUS NTAPI IoVolumeDeviceToDosName(PVOID VolumeDeviceObject, PUNICODE_STRING DosName)
{
    RequireIrql(PASSIVE_LEVEL, "IoVolumeDeviceToDosName");
    if (InjectFailure("IoVolumeDeviceToDosName"))
    {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    const Volume* volume = VolumeOf(static_cast<PDEVICE_OBJECT>(VolumeDeviceObject));
    if (volume == nullptr)
    {
        return STATUS_INVALID_DEVICE_REQUEST;
    }
    if (volume->DosName.empty())
    {
        return STATUS_OBJECT_NAME_NOT_FOUND;
    }
    // The caller frees the terminated text from paged pool.
    const auto bytes = static_cast<USHORT>(volume->DosName.size() * sizeof(WCHAR));
    const PVOID buffer = ExAllocatePoolWithTag(PagedPool, bytes + sizeof(WCHAR), DosNameTag);
    if (buffer == nullptr)
    {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    std::memcpy(buffer, volume->DosName.c_str(), bytes + sizeof(WCHAR));
    DosName->Length = bytes;
    DosName->MaximumLength = bytes + sizeof(WCHAR);
    DosName->Buffer = static_cast<PWSTR>(buffer);
    return STATUS_SUCCESS;
}
