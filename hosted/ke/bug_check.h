// The end of a run that broke a rule of the platform.
#pragma once

namespace hosted
{
// Writes the rule and the formatted detail (printf conventions) to standard error and aborts the process, as a
// bug check stops the system. May be called at any IRQL, with any lock held.
[[noreturn]] void BugCheck(const char* rule, const char* format, ...) __attribute__((format(printf, 2, 3)));
}
