// What the build and the formatter hold the tree to.
#pragma once

#include "tests/conformance/source/rules/findings.h"

#include <filesystem>
#include <string>
#include <vector>

namespace source
{
// Driver sources of which the build's record of commands (compile_commands.json) has no command, or one by which the
// compiler would accept a frame of more than 1 KiB.
Findings FindUnlimitedFrames(const std::string& commands, const std::vector<std::string>& sources);

// Lines that clang-format would write otherwise, in the files named from the top of the tree. Throws std::runtime_error
// where there is no clang-format 19: another release has other opinions.
Findings FindUnformatted(const std::filesystem::path& top, const std::vector<std::string>& paths);
}
