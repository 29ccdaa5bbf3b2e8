// One key in memory.
#pragma once

#include "hosted/cm/registry.h"

namespace hosted
{
// Guarded by the registry's lock, but for the name.
struct RegistryKey
{
    WideString Name;
    bool Deleted = false;
    std::map<WideString, std::shared_ptr<RegistryKey>, LessNoCase> Subkeys;
    std::map<WideString, RegistryValue, LessNoCase> Values;
};

// The first component of a path and what follows it. Leading and repeated backslashes are skipped.
struct PathParts
{
    WideView First;
    WideView Rest;
};
PathParts SplitKeyPath(WideView path);
}
