#include "hosted/ke/bug_check.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <execinfo.h>
#include <unistd.h>

// Present in coverage builds, where what a run did up to its bug check would otherwise go uncounted.
extern "C" __attribute__((weak)) int __llvm_profile_write_file(void);

namespace hosted
{
void BugCheck(const char* rule, const char* format, ...)
{
    char detail[768];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(detail, sizeof(detail), format, arguments);
    va_end(arguments);

    // One write, so that the text stays in one piece when several threads end at once.
    char text[1024];
    int length = snprintf(text, sizeof(text), "*** Bug check: %s: %s\n", rule, detail);
    length = length < static_cast<int>(sizeof(text)) ? length : static_cast<int>(sizeof(text)) - 1;
    [[maybe_unused]] ssize_t written = write(STDERR_FILENO, text, static_cast<size_t>(length));

    // Unsymbolised on purpose: starting a symboliser for each expected bug check would take longer than the tests.
    void* frames[32];
    backtrace_symbols_fd(frames, backtrace(frames, 32), STDERR_FILENO);
    if (__llvm_profile_write_file != nullptr)
    {
        __llvm_profile_write_file();
    }
    abort();
}
}
