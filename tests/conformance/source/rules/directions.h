// Which folder may include which. Includes point one way, so that each folder can be read without those above it.
#pragma once

#include "tests/conformance/source/reader/source_text.h"
#include "tests/conformance/source/rules/findings.h"

#include <string>
#include <vector>

namespace source
{
// The folder that a file counts for: `hosted/fs/store`, `driver/log`, `live/mount`, `agent`, `tests/unit`.
std::string FolderOf(std::string_view path);

// Includes that the table of folders does not allow, and of folders that it does not know. Of driver/ only the headers
// are bound among themselves: its sources all use the one record of state.
Findings FindWrongIncludes(const SourceText& source);

// The test framework outside of tests/.
Findings FindTestFramework(const SourceText& source);

// Pairs of folders that include each other, one finding for each. In driver/ by headers.
Findings FindMutualPairs(const std::vector<SourceText>& sources);
}
