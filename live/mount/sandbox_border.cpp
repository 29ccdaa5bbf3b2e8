#include "live/mount/sandbox_border.h"

namespace live
{
namespace
{
bool IsInside(hosted::WideView folder, hosted::WideView path)
{
    return !folder.empty() && hosted::IsAtOrBelow(path, folder);
}

bool IsAbove(hosted::WideView folder, hosted::WideView path)
{
    return path.size() < folder.size() && hosted::IsAtOrBelow(folder, path);
}
}

bool CrossesSandboxBorder(const MountState& state, hosted::WideView from, hosted::WideView to)
{
    const hosted::WideView folder = state.SandboxFolder;
    // A folder above it would take it along.
    return IsInside(folder, from) != IsInside(folder, to) || IsAbove(folder, from) || IsAbove(folder, to);
}
}
