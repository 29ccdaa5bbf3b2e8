// What handle tables do to objects beyond taking references.
#pragma once

#include "hosted/ob/object.h"

namespace hosted
{
void AddHandleCount(void* body);
// Runs the type's LastHandleClosed when the count falls to zero. The caller still holds a reference.
void DropHandleCount(void* body);
}
