#include "hosted/live/mount/sandbox_border.h"

namespace live
{
namespace
{
bool IsInside(host::WideView folder, host::WideView path)
{
    return !folder.empty() && path.size() >= folder.size() &&
           host::EqualNoCase(path.substr(0, folder.size()), folder) &&
           (path.size() == folder.size() || path[folder.size()] == L'\\');
}
}

bool CrossesSandboxBorder(const MountState& state, host::WideView from, host::WideView to)
{
    return IsInside(state.SandboxFolder, from) != IsInside(state.SandboxFolder, to);
}
}
