// The filter manager: carries an operation through the registered filter to the file system and back.
#pragma once

#include "hosted/io/volume.h"
#include "hosted/ps/process.h"

namespace hosted
{
struct FilterRequest
{
    Volume* Target;
    ULONG DataFlags; // FLTFL_CALLBACK_DATA_IRP_OPERATION or ..._FAST_IO_OPERATION
    KPROCESSOR_MODE Mode;
    Thread* Requestor; // null: the calling thread
    FLT_IO_PARAMETER_BLOCK Parameters;
};

// Pre-operation callbacks, FileSystem::Dispatch, post-operation callbacks. Returns the final status, also in
// *status. The request's parameters are afterwards what they were before, whatever the filter changed.
// STATUS_FLT_DISALLOW_FAST_IO: the filter wants this fast I/O operation as an ordinary request.
NTSTATUS SendOperation(FilterRequest& request, IO_STATUS_BLOCK* status);

// A volume came (instance setup when filtering runs) or goes (its instance is torn down).
void FilterVolumeMounted(Volume* volume);
void FilterVolumeDismounted(Volume* volume);
bool HasInstance(Volume* volume);
// The file system is about to free the stream's header: its contexts are torn down.
void FilterStreamDeleted(PFSRTL_COMMON_FCB_HEADER stream);
// What "fltmc unload" does: the filter's unload callback. STATUS_FLT_FILTER_NOT_FOUND style failures when none.
NTSTATUS UnloadFilter();
// The unload callback that the driver named when it registered a filter, for one that has taken its filter back and
// so cannot be unloaded on Windows any more. Once per registration; fails like UnloadFilter when a filter is there, or
// none ever was.
NTSTATUS UnloadWithoutFilter();
// Another driver is about to load; no callback of the last one counts for it.
void ForgetLastUnload();
// The registered filter's live context objects and name informations, for leak checks ("" when none).
std::string DescribeLiveFilterObjects();
}
