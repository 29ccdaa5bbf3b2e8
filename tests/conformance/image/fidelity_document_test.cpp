// docs/hosted-kernel.md says of every exported routine how faithful it is.
#include "hosted/ldr/export_list.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

namespace
{

using testing::IsEmpty;

// Routine to what the document calls it: the rows "| `Routine` | faithful | ... |" below the heading of a module.
using Rows = std::multimap<std::string, std::string>;

std::map<std::string, Rows> ReadTables(std::istream& document)
{
    const std::regex row(R"(^\| `(\w+)` \| (\S[^|]*?) \|.*\|$)");
    std::map<std::string, Rows> tables;
    std::string module;
    for (std::string line; std::getline(document, line);)
    {
        std::smatch match;
        if (line.starts_with("### "))
        {
            module = line.substr(4);
        }
        else if (line.starts_with("## "))
        {
            module.clear();
        }
        else if (!module.empty() && std::regex_match(line, match, row))
        {
            tables[module].emplace(match[1], match[2]);
        }
    }
    return tables;
}

// One line per exported routine without exactly one row, per row without a routine, and per unknown verdict.
std::vector<std::string> FindGaps(const std::map<std::string, Rows>& tables)
{
    constexpr const char* Ntoskrnl = "ntoskrnl.exe";
    constexpr const char* FilterManager = "FLTMGR.SYS";
    std::map<std::string, std::set<std::string>> exports;
#define NOTE(Module, Name) exports[Module].insert(#Name);
#define NOTE_AS(Module, Name, Here) NOTE(Module, Name)
    HOSTED_EXPORTS(NOTE, NOTE_AS, NOTE, NOTE)
#undef NOTE_AS
#undef NOTE

    std::vector<std::string> gaps;
    for (const auto& [module, names] : exports)
    {
        const auto found = tables.find(module);
        const Rows rows = found == tables.end() ? Rows() : found->second;
        for (const std::string& name : names)
        {
            if (rows.count(name) != 1)
            {
                gaps.push_back(name + " of " + module + " has " + std::to_string(rows.count(name)) + " lines");
            }
        }
        for (const auto& [name, verdict] : rows)
        {
            if (!names.contains(name))
            {
                gaps.push_back(name + " is not exported from " + module);
            }
        }
    }
    for (const auto& [module, rows] : tables)
    {
        for (const auto& [name, verdict] : rows)
        {
            if (verdict != "faithful" && verdict != "simplified" && verdict != "absent")
            {
                gaps.push_back(name + " is called \"" + verdict + "\"");
            }
        }
    }
    return gaps;
}

std::string Document()
{
    std::ifstream stream(TARNVEIL_SOURCES "/docs/hosted-kernel.md");
    std::ostringstream text;
    text << stream.rdbuf();
    return text.str();
}

std::vector<std::string> FindGapsIn(const std::string& text)
{
    std::istringstream stream(text);
    return FindGaps(ReadTables(stream));
}

std::string Replaced(std::string text, const std::string& from, const std::string& to)
{
    const size_t place = text.find(from);
    EXPECT_NE(place, std::string::npos) << from;
    return place == std::string::npos ? text : text.replace(place, from.size(), to);
}

TEST(FidelityDocument, HasOneLineForEveryExportedRoutine)
{
    EXPECT_THAT(FindGapsIn(Document()), IsEmpty());
}

TEST(FidelityDocument, NoticesMissingForeignAndUnclearLines)
{
    const std::string text = Document();
    EXPECT_THAT(FindGapsIn(Replaced(text, "| `KeSetEvent` |", "| KeSetEvent |")),
        testing::ElementsAre("KeSetEvent of ntoskrnl.exe has 0 lines"));
    EXPECT_THAT(FindGapsIn(Replaced(text, "| `FltGetVolumeName` |", "| `FltGetVolumeNames` |")),
        testing::ElementsAre(
            "FltGetVolumeName of FLTMGR.SYS has 0 lines", "FltGetVolumeNames is not exported from FLTMGR.SYS"));
    EXPECT_THAT(FindGapsIn(Replaced(text, "| `KeInitializeEvent` | faithful |", "| `KeInitializeEvent` | good |")),
        testing::ElementsAre("KeInitializeEvent is called \"good\""));
}

}
