// Exceptions for the handlers of a loaded image.
#pragma once

#include "hosted/ldr/exception.h"

namespace hosted
{
// Searches the image's frames from these registers outwards for a handler, up to where the image was called from the
// hosted kernel. Continues in the handler when there is one, after the termination handlers on the way have run, and
// does not return then. When nobody handles it, nothing has happened.
void DispatchException(NTSTATUS status, const void* address, const ProcessorContext& context);
}
