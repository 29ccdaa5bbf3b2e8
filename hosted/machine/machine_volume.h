// One volume of the machine over its store, which outlives mounts.
#pragma once

#include "hosted/fs/store/store_volume.h"
#include "hosted/io/volume.h"
#include "hosted/machine/machine_options.h"

namespace hosted
{
class MachineVolume
{
public:
    // Mounted from the start to the end of its life.
    explicit MachineVolume(VolumeOptions options);
    ~MachineVolume();
    MachineVolume(const MachineVolume&) = delete;
    MachineVolume& operator=(const MachineVolume&) = delete;

    const VolumeOptions& Options() const { return options_; }
    Volume* Mounted() const { return volume_; }
    // Away and back: what was written is found again. Nothing may be open.
    void Remount();

private:
    void Mount();
    void Dismount();

    const VolumeOptions options_;
    const std::shared_ptr<MemoryDisk> disk_; // null with a directory store
    Volume* volume_ = nullptr;
};
}
