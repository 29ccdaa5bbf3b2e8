// Texts that tests expect and take apart.
#pragma once

#include <cstdio>
#include <sstream>
#include <string>
#include <vector>

// printf into a string.
inline std::string Text(const char* format, auto... arguments)
{
    char text[2048];
    std::snprintf(text, sizeof(text), format, arguments...);
    return text;
}

// Without their ends.
inline std::vector<std::string> Lines(const std::string& text)
{
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);)
    {
        lines.push_back(line);
    }
    return lines;
}
