// The filter manager: carries each request for a volume through the registered filter to the file system and back.
#pragma once

#include "hosted/io/volume.h"

namespace hosted
{
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
