// A request for a file on a volume, and its way: through the filters to the file system and back.
#pragma once

#include "hosted/io/volume.h"
#include "hosted/ps/process.h"

namespace hosted
{
struct FileRequest
{
    Volume* Target;
    ULONG DataFlags; // FLTFL_CALLBACK_DATA_IRP_OPERATION or ..._FAST_IO_OPERATION
    KPROCESSOR_MODE Mode;
    Thread* Requestor; // null: the calling thread
    FLT_IO_PARAMETER_BLOCK Parameters;
};

// A request with the fields filled that every operation on an open file has.
FileRequest NewFileRequest(PFILE_OBJECT file, UCHAR majorFunction, ULONG irpFlags);
// Carries a request through the filters of the file's volume to its file system and back. Returns the final status,
// also in *status. The request's parameters are afterwards what they were before, whatever a filter changed.
// STATUS_INVALID_DEVICE_REQUEST when the file has no volume; STATUS_FLT_DISALLOW_FAST_IO: a filter wants this fast I/O
// operation as an ordinary request.
NTSTATUS SendFileRequest(FileRequest& request, IO_STATUS_BLOCK* status);
// The last step of that way: the file system itself. Bug check when it stores another status than it returns, or
// returns at another level.
NTSTATUS SendToFileSystem(Volume* volume, const FLT_IO_PARAMETER_BLOCK& parameters, IO_STATUS_BLOCK* status);

// What stands between the requests and the file systems. flt/, the filter manager, has the one object of a type derived
// from this; to make it is all that it takes. Without one, requests go straight to the file system.
class VolumeFilters
{
public:
    VolumeFilters();
    VolumeFilters(const VolumeFilters&) = delete;
    VolumeFilters& operator=(const VolumeFilters&) = delete;

    // Shows the request to the filters of its volume and sends it on by SendToFileSystem.
    virtual NTSTATUS Send(FileRequest& request, IO_STATUS_BLOCK* status) = 0;
    // A volume came, or is about to go.
    virtual void VolumeMounted(Volume* volume) = 0;
    virtual void VolumeDismounted(Volume* volume) = 0;

protected:
    ~VolumeFilters() = default;
};

// Null when there are none.
VolumeFilters* FiltersOfVolumes();
}
