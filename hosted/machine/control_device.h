// The driver's control device, as programs reach it.
#pragma once

#include "hosted/rtl/wide_string.h"

namespace hosted
{
// The link that the driver makes.
inline constexpr WideView ControlDevicePath = L"\\??\\Tarnveil";

// As the current process, for requests one after the other; the caller closes the file. The status is that of the open.
NTSTATUS OpenControlDevice(PFILE_OBJECT* file);
}
