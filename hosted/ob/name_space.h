// The object name space: devices and symbolic links by path, case-insensitive.
#pragma once

#include "hosted/ob/object.h"

namespace hosted
{
// Path without symbolic links in it, e.g. "\Device\Tarnveil". Takes a reference; removal drops it.
// STATUS_OBJECT_NAME_COLLISION when taken, STATUS_OBJECT_PATH_SYNTAX_BAD when no absolute path,
// STATUS_OBJECT_NAME_INVALID when a component is empty.
NTSTATUS InsertName(WideView path, void* body);
NTSTATUS RemoveName(WideView path);
// Links live below "\??"; "\DosDevices\X:" means "\??\X:".
// STATUS_INVALID_PARAMETER for a link to nothing.
NTSTATUS InsertSymbolicLink(WideView link, WideView target);
NTSTATUS RemoveSymbolicLink(WideView link);
// The link's own target, not followed further. STATUS_OBJECT_NAME_NOT_FOUND.
NTSTATUS ReadSymbolicLink(WideView link, WideString* target);
// Resolves a path, following links at its start, to the longest named object ("\??\C:\a\b" gives the volume's
// device with *remainder "\a\b"). On success *body carries a reference for the caller.
// STATUS_OBJECT_NAME_NOT_FOUND, STATUS_OBJECT_PATH_NOT_FOUND, STATUS_OBJECT_NAME_INVALID,
// STATUS_OBJECT_PATH_SYNTAX_BAD.
NTSTATUS LookupObject(WideView path, void** body, WideString* remainder);
}
