#include "tests/conformance/source/rules/sizes.h"

#include "tests/conformance/source/reader/routines.h"

#include <algorithm>

namespace source
{
Findings FindLongFile(const std::string& path, size_t lines)
{
    if (lines <= LongestFile)
    {
        return {};
    }
    return {{path, static_cast<int>(lines), "the file has " + std::to_string(lines) + " lines"}};
}

Findings FindLongRoutines(const SourceText& source)
{
    Findings findings;
    for (const Routine& routine : RoutinesOf(source))
    {
        const int lines = routine.LastLine - routine.FirstLine + 1;
        if (lines > LongestRoutine)
        {
            findings.push_back(
                {source.Path, routine.FirstLine, routine.Name + " has " + std::to_string(lines) + " lines"});
        }
    }
    return findings;
}

Findings FindLongFiles(const Tree& tree)
{
    Findings all;
    const auto add = [&](const std::string& path, size_t lines)
    {
        const Findings found = FindLongFile(path, lines);
        all.insert(all.end(), found.begin(), found.end());
    };
    for (const SourceText& source : tree.Sources)
    {
        add(source.Path, source.Lines.size());
    }
    for (const TextFile& file : tree.Texts)
    {
        const bool isDocument = file.Path.starts_with("docs/") || file.Path.ends_with(".md") || file.Path == "NOTICE";
        if (!isDocument)
        {
            add(file.Path, static_cast<size_t>(std::count(file.Text.begin(), file.Text.end(), '\n')));
        }
    }
    return all;
}
}
