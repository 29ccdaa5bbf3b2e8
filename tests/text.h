// printf into a string, for expected texts.
#pragma once

#include <cstdio>
#include <string>

inline std::string Text(const char* format, auto... arguments)
{
    char text[2048];
    std::snprintf(text, sizeof(text), format, arguments...);
    return text;
}
