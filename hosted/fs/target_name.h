// The new name that a request to rename or link gives.
#pragma once

#include "hosted/io/volume.h"

#include <vector>

namespace hosted
{
// Where a new name leads: a name alone stays in the directory, a path starts at the volume, and the I/O manager may
// have opened the target's directory.
struct TargetName
{
    PFILE_OBJECT Parent = nullptr; // open
    bool SameDirectory = false;
    std::vector<WideString> Directory; // from the root, with neither of the above
    WideString Name;
};

NTSTATUS ParseTargetName(const Volume& volume, const FLT_IO_PARAMETER_BLOCK& operation, TargetName* target);
}
