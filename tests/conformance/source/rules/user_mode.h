// What holds in the hosted kernel and in the programs around it.
#pragma once

#include "tests/conformance/source/reader/source_text.h"
#include "tests/conformance/source/rules/findings.h"

namespace source
{
// Locks of the standard library, which the compiler's analysis does not see; common/mutex.h has those that it sees.
Findings FindUncheckedLocks(const SourceText& source);
}
