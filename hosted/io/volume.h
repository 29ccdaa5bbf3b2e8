// A mounted volume: its devices, its place in the name space, its file system.
#pragma once

#include "hosted/rtl/wide_string.h"

#include <fltkernel.h>

#include <memory>

namespace hosted
{
// A file system as the layers above see it (implemented by fs/). Operations arrive below the filters.
class FileSystem
{
public:
    virtual ~FileSystem() = default;

    // Carries out one operation and returns its final status, which it also stores in status.Status, with the
    // bytes transferred or the create's outcome in status.Information. `operation` holds the parameters as the
    // filters left them. MajorFunction: CREATE, READ, WRITE, QUERY_INFORMATION, SET_INFORMATION,
    // DIRECTORY_CONTROL, FLUSH_BUFFERS, CLEANUP, CLOSE.
    virtual NTSTATUS Dispatch(FLT_IO_PARAMETER_BLOCK& operation, IO_STATUS_BLOCK& status) = 0;

    // Whether a cached read or write of this file object may be tried as fast I/O.
    virtual bool FastIoPossible(PFILE_OBJECT fileObject, bool write, ULONG length) = 0;

    // Long-form path of the stream that a file object has open or would open, from the volume's root, e.g.
    // "\Sandbox\plan.txt" or "\Sandbox\plan.txt:notes"; short components are expanded where they exist.
    // `options` are the create's options (open by file id).
    virtual NTSTATUS NormalizedName(PFILE_OBJECT fileObject, ULONG options, WideString* path) = 0;

    // A write or a change of information that the calling thread sent has passed the filters on its way up: whoever
    // follows a stream's size now knows what became of it.
    virtual void Settled(PFILE_OBJECT fileObject) = 0;

    virtual bool IsDirectory(PFILE_OBJECT fileObject) = 0;
    virtual bool IsPagingFile(PFILE_OBJECT fileObject) = 0;
};

struct Volume
{
    WideString DeviceName;           // "\Device\HarddiskVolume1"
    WideString DosName;              // "C:", empty when it has no drive letter
    DEVICE_TYPE DeviceKind;          // FILE_DEVICE_DISK_FILE_SYSTEM, ..._NETWORK_..., ..._CD_ROM_...
    PDEVICE_OBJECT Disk;             // named DeviceName; Vpb->RealDevice
    PDEVICE_OBJECT FileSystemDevice; // Vpb->DeviceObject
    PVPB Vpb;                        // null for a network volume
    ULONG SectorSize = 512;          // 1 = byte-addressable medium: non-cached I/O of any length is accepted
    std::unique_ptr<FileSystem> Files;
};

// Adds the volume to the name space (device, drive letter link) and shows it to the filters (instances are set up
// at once when filtering already runs). Owned by io/.
Volume* MountVolume(std::unique_ptr<Volume> volume);
// Flushes and closes nothing: every file object must be closed and the cache purged before (bug check otherwise).
void DismountVolume(Volume* volume);
Volume* VolumeOf(PDEVICE_OBJECT device);
}
