// The map under the name space, shared with the routines that open links.
#pragma once

#include "hosted/ob/name_space.h"

namespace hosted
{
// Body of a SymbolicLinkType object.
struct SymbolicLink
{
    WCHAR* Target;
    SIZE_T TargetCharacters;
};

// The link object named exactly so, with a reference. STATUS_OBJECT_NAME_INVALID, STATUS_OBJECT_NAME_NOT_FOUND,
// STATUS_OBJECT_PATH_NOT_FOUND, STATUS_OBJECT_TYPE_MISMATCH.
NTSTATUS ReferenceSymbolicLink(WideView path, SymbolicLink** link);
}
