// What the questions find on either side: keys with values, files, a running program.
#pragma once

#include <span>
#include <string_view>

namespace platform
{
// .reg text below the key of the questions.
extern const std::string_view Keys;

struct EnvironmentFile
{
    std::string_view Path; // below C:\, with separators as on Linux
    std::string_view Contents;
};
std::span<const EnvironmentFile> Files();

// Where the answers are written, and a file that the questions write to; both are among Files().
inline constexpr std::string_view AnswerFile = "answers.txt";
inline constexpr std::string_view WrittenFile = "questions/written.txt";
}
