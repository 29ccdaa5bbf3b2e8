// What must hold of a whole package: that it is complete, that its files belong together, and that each may ship.
#pragma once

#include "findings.h"

#include <filesystem>

namespace package
{

// One text per broken rule of the package in a folder. `withControlProgram` says whether tarnctl.exe belongs to it.
// That the signature is right is for the tool to say which made it; here only its place in the image is looked at.
Findings FindBrokenPackageRules(const std::filesystem::path& folder, bool withControlProgram);

}
