// What tests must not do, and what each must.
#pragma once

#include "tests/conformance/source/reader/tree.h"
#include "tests/conformance/source/rules/findings.h"

namespace source
{
// A test waits for what happens, never for time to pass.
Findings FindSleeps(const SourceText& source);

// Bodies of tests that expect nothing, neither by themselves nor by a routine that the file itself defines or that a
// header under tests/, included directly or by another, defines or declares for the source beside it.
Findings FindEmptyTests(const std::vector<SourceText>& sources);
}
