#include "tests/conformance/source/rules/comments.h"

#include "tests/conformance/source/reader/routines.h"

#include <algorithm>
#include <cctype>

namespace source
{
namespace
{
std::string_view Trimmed(std::string_view line)
{
    line.remove_prefix(std::min(line.find_first_not_of(" \t\r"), line.size()));
    return line.substr(0, line.find_last_not_of(" \t\r") + 1);
}

// What stands before the paragraph of a routine without belonging to it.
bool EndsParagraph(std::string_view line)
{
    return line.empty() || line == "{" || line.starts_with("};") || line == "public:" || line == "protected:" ||
           line == "private:" || line.starts_with("#") || line.starts_with("namespace");
}

// Whether a comment stands on the routine's line or above it in its paragraph.
bool IsSpokenOf(const SourceText& header, const Routine& routine)
{
    for (int line = routine.FirstLine; line > 0; --line)
    {
        const std::string_view text = Trimmed(header.Lines[static_cast<size_t>(line) - 1]);
        if (line != routine.FirstLine && EndsParagraph(text))
        {
            return false;
        }
        if (text.starts_with("//") || text.ends_with("*/") ||
            (line == routine.FirstLine && text.find("//") != text.npos))
        {
            return true;
        }
    }
    return false;
}

bool SaysItself(const SourceText& header, const Routine& routine)
{
    const bool life = routine.Name == routine.Class || routine.Name.starts_with("~");
    const auto begin = header.Tokens.begin() + static_cast<std::ptrdiff_t>(routine.Head);
    const auto end = header.Tokens.begin() + static_cast<std::ptrdiff_t>(routine.Body);
    const bool overrides = std::any_of(begin, end, [](const Token& token) { return token.Is("override"); });
    const bool oneLine = routine.HasBody() && routine.FirstLine == routine.LastLine;
    const bool standard = std::islower(static_cast<unsigned char>(routine.Name.front())) != 0;
    return life || standard || overrides || oneLine;
}
}

Findings FindSilentRoutines(const SourceText& header)
{
    Findings findings;
    for (const Routine& routine : RoutinesOf(header))
    {
        if (!routine.IsHidden && !SaysItself(header, routine) && !IsSpokenOf(header, routine))
        {
            findings.push_back({header.Path, routine.FirstLine, routine.Name + " has no comment"});
        }
    }
    return findings;
}
}
