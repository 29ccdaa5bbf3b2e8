// A file holds one idea and a routine one thought: neither is long.
#pragma once

#include "tests/conformance/source/reader/tree.h"
#include "tests/conformance/source/rules/findings.h"

namespace source
{
inline constexpr size_t LongestFile = 400;
inline constexpr int LongestRoutine = 60;

Findings FindLongFile(const std::string& path, size_t lines);
// From the first line of the head to the closing brace.
Findings FindLongRoutines(const SourceText& source);
// Sources, scripts and build files; documents may be long.
Findings FindLongFiles(const Tree& tree);
}
