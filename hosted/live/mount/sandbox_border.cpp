#include "hosted/live/mount/sandbox_border.h"

namespace live
{
namespace
{
bool IsInside(host::WideView folder, host::WideView path)
{
    return !folder.empty() && host::IsAtOrBelow(path, folder);
}

bool IsAbove(host::WideView folder, host::WideView path)
{
    return path.size() < folder.size() && host::IsAtOrBelow(folder, path);
}
}

bool CrossesSandboxBorder(const MountState& state, host::WideView from, host::WideView to)
{
    const host::WideView folder = state.SandboxFolder;
    // A folder above it would take it along.
    return IsInside(folder, from) != IsInside(folder, to) || IsAbove(folder, from) || IsAbove(folder, to);
}
}
