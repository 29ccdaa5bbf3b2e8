// The log of a live system: one line for each thing that happens.
#pragma once

#include <cstdarg>
#include <cstdio>

namespace live
{
class Log
{
public:
    explicit Log(FILE* file) : file_(file) {}

    void Say(const char* format, ...) const __attribute__((format(printf, 2, 3)))
    {
        char line[1024];
        std::va_list arguments;
        va_start(arguments, format);
        std::vsnprintf(line, sizeof(line), format, arguments);
        va_end(arguments);
        std::fprintf(file_, "tarnhost: %s\n", line);
        std::fflush(file_);
    }

private:
    FILE* const file_;
};
}
