// What holds in driver/ alone.
#pragma once

#include "tests/conformance/source/reader/source_text.h"
#include "tests/conformance/source/rules/findings.h"

namespace source
{
// The driver never asks which build it is in: conditional compilation that names a platform, compiler or processor, or
// anything else.
Findings FindConditions(const SourceText& source);

// Calls that take or give back a lock; WithLock does that for everybody.
Findings FindBareLocks(const SourceText& source);

// A WithLock that holds another lock than its body's annotation names, which the compiler cannot see, or a body without
// an annotation.
Findings FindWrongLocks(const SourceText& source);
}
