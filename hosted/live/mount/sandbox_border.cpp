#include "hosted/live/mount/sandbox_border.h"

namespace live
{
namespace
{
bool IsInside(host::WideView folder, host::WideView path)
{
    return !folder.empty() && host::IsAtOrBelow(path, folder);
}
}

bool CrossesSandboxBorder(const MountState& state, host::WideView from, host::WideView to)
{
    return IsInside(state.SandboxFolder, from) != IsInside(state.SandboxFolder, to);
}
}
