#include "hosted/machine/machine_volume.h"

#include "hosted/cc/cache.h"
#include "hosted/fs/folder/folder_volume.h"

namespace hosted
{
MachineVolume::MachineVolume(VolumeOptions options)
    : options_(std::move(options)), disk_(options_.Directory.empty() ? CreateMemoryDisk() : nullptr)
{
    Mount();
}

MachineVolume::~MachineVolume()
{
    Dismount();
}

void MachineVolume::Remount()
{
    Dismount();
    Mount();
}

void MachineVolume::Mount()
{
    auto volume = std::make_unique<Volume>();
    volume->DeviceName = options_.DeviceName;
    volume->DosName = options_.DosName;
    volume->DeviceKind = options_.Kind;
    volume->Disk = nullptr;
    volume->FileSystemDevice = nullptr;
    volume->Vpb = nullptr;
    volume->SectorSize = options_.SectorSize;
    if (!options_.Folder.empty())
    {
        const FolderOptions folder{
            .Folder = options_.Folder, .ReadOnly = options_.ReadOnly, .Without = options_.Without};
        volume->Files = CreateFolderFileSystem(*volume, folder);
    }
    else
    {
        auto store = disk_ != nullptr ? CreateMemoryStore(disk_) : CreateDirectoryStore(options_.Directory);
        const StoreOptions files{.StrictEndOfFile = options_.StrictEndOfFile, .ShortNames = options_.ShortNames};
        volume->Files = CreateStoreFileSystem(*volume, std::move(store), files);
    }
    volume_ = MountVolume(std::move(volume));
}

void MachineVolume::Dismount()
{
    LazyWrite();
    DismountVolume(volume_);
    volume_ = nullptr;
}
}
