#include "tests/conformance/source/rules/words.h"

#include <algorithm>
#include <cctype>

namespace source
{
namespace
{
bool IsLower(char character)
{
    return std::islower(static_cast<unsigned char>(character)) != 0;
}

bool IsLetter(char character)
{
    return std::isalpha(static_cast<unsigned char>(character)) != 0;
}

bool EqualsWithoutCase(std::string_view left, std::string_view right)
{
    return std::equal(left.begin(), left.end(), right.begin(), right.end(), [](char one, char other)
        { return std::tolower(static_cast<unsigned char>(one)) == std::tolower(static_cast<unsigned char>(other)); });
}

// Whether a word of the text, also one within a name, begins at the place and has the length.
bool IsWholeWord(std::string_view text, size_t place, size_t length)
{
    // In `fileWord` the capital begins a word; in `WORDS` and `Words` nothing ends one.
    const bool begins = place == 0 || !IsLetter(text[place - 1]) || (IsLower(text[place - 1]) && !IsLower(text[place]));
    const size_t behind = place + length;
    const bool ends =
        behind == text.size() || !IsLetter(text[behind]) || (IsLower(text[behind - 1]) && !IsLower(text[behind]));
    return begins && ends;
}
}

Findings FindWord(const std::string& path, std::string_view text, std::string_view word)
{
    const char initials[] = {word.front(), static_cast<char>(std::toupper(static_cast<unsigned char>(word.front())))};
    Findings findings;
    for (size_t place = 0; (place = text.find_first_of(std::string_view(initials, 2), place)) != text.npos; ++place)
    {
        const std::string_view found = text.substr(place, word.size());
        if (EqualsWithoutCase(found, word) && IsWholeWord(text, place, word.size()))
        {
            const auto line = 1 + std::count(text.begin(), text.begin() + static_cast<std::ptrdiff_t>(place), '\n');
            findings.push_back({path, static_cast<int>(line), std::string(word) + " is used as a word"});
        }
    }
    return findings;
}
}
