// Event objects that programs own.
#pragma once

#include "hosted/ob/handle_table.h"

namespace hosted
{
// A new event, not signalled, with a handle of all access in that table, which owns the only reference. *event
// receives the event itself, good as long as someone holds a reference; may be null.
HANDLE CreateEventHandle(HandleTable& table, EVENT_TYPE type, PKEVENT* event);
}
