// A header says of each routine what it promises.
#pragma once

#include "tests/conformance/source/reader/source_text.h"
#include "tests/conformance/source/rules/findings.h"

namespace source
{
// Routines of a header that no comment speaks of. One comment may speak of several routines: of all that stand with it
// without an empty line between. Needs none: what others cannot call, what overrides a routine that has one, what takes
// and gives back an object's life, operators, what has its whole body on the line of its name, and names in small
// letters, which are the standard library's.
Findings FindSilentRoutines(const SourceText& header);
}
