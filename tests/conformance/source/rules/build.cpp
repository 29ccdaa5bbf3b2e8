#include "tests/conformance/source/rules/build.h"

#include "tests/support/shell.h"
#include "tests/support/temporary_folder.h"
#include "tests/support/text.h"

#include <charconv>
#include <stdexcept>

namespace source
{
namespace
{
bool Contains(std::string_view text, std::string_view part)
{
    return text.find(part) != std::string_view::npos;
}

// The entries of the record that compile the source. Nothing in a command looks like an entry's end.
std::vector<std::string_view> EntriesOf(std::string_view commands, const std::string& source)
{
    const std::string file = "/" + source + "\"";
    std::vector<std::string_view> entries;
    while (!commands.empty())
    {
        const size_t end = std::min(commands.find("\n}"), commands.size());
        const std::string_view entry = commands.substr(0, end);
        const size_t key = entry.find("\"file\"");
        if (key != entry.npos && Contains(entry.substr(key, entry.find('\n', key) - key), file))
        {
            entries.push_back(entry);
        }
        commands.remove_prefix(std::min(end + 2, commands.size()));
    }
    return entries;
}
}

Findings FindUnlimitedFrames(const std::string& commands, const std::vector<std::string>& sources)
{
    Findings findings;
    for (const std::string& source : sources)
    {
        const std::vector<std::string_view> entries = EntriesOf(commands, source);
        if (entries.empty())
        {
            findings.push_back({source, 1, "is not compiled"});
        }
        for (const std::string_view entry : entries)
        {
            if (!Contains(entry, " -Wframe-larger-than=1024 ") || !Contains(entry, " -Werror "))
            {
                findings.push_back({source, 1, "is compiled without a limit for its frames"});
            }
        }
    }
    return findings;
}

Findings FindUnformatted(const std::filesystem::path& top, const std::vector<std::string>& paths)
{
    const TemporaryFolder folder;
    std::string list;
    for (const std::string& path : paths)
    {
        list += path + "\n";
    }
    folder.Put("paths", list);
    const ShellOutcome outcome = RunShell("cd " + Quoted(top) + " && xargs -a " + Quoted(folder.Path("paths")) +
                                          " -P \"$(nproc)\" -n 50 clang-format-19 --dry-run -Werror 2>&1");
    Findings findings;
    for (const std::string& line : Lines(outcome.Output))
    {
        // PATH:LINE:COLUMN: error: ..., and below it the line of the file.
        const size_t colon = line.find(':');
        int number = 0;
        if (Contains(line, " error: ") && colon != std::string::npos &&
            std::from_chars(line.data() + colon + 1, line.data() + line.size(), number).ec == std::errc())
        {
            findings.push_back({line.substr(0, colon), number, "clang-format would write this otherwise"});
        }
    }
    // xargs ends with 123 where one of the calls found something.
    if (outcome.Code != (findings.empty() ? 0 : 123))
    {
        throw std::runtime_error("clang-format-19: " + outcome.Output);
    }
    return findings;
}
}
