// Reads an INF file into sections and entries, as far as driver packages need it. Names compare without case, as
// Windows compares them; string keys (%Name%) are replaced from the section [Strings].
#pragma once

#include "findings.h"

#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace package
{

struct InfEntry
{
    std::string Key;                 // before the equals sign; empty for a line without one
    std::vector<std::string> Values; // between the commas, without quotes
};

class InfFile
{
public:
    // Takes the whole text. What cannot be read is told by Problems and left out.
    explicit InfFile(std::string_view text);

    const Findings& Problems() const { return problems; }

    bool HasSection(std::string_view name) const;
    // By lower-case name.
    const std::map<std::string, std::vector<InfEntry>>& Sections() const { return sections; }
    // Empty for a section that is not there.
    const std::vector<InfEntry>& Section(std::string_view name) const;
    // The values of the first entry with this key; empty if none.
    std::vector<std::string> Values(std::string_view section, std::string_view key) const;
    // The first of these values, empty if none.
    std::string Value(std::string_view section, std::string_view key) const;

private:
    void ReadLine(std::string line);
    std::vector<std::string> Split(const std::string& text, char separator, std::size_t limit);
    std::string Resolve(const std::string& text);
    void ResolveAll();

    std::map<std::string, std::vector<InfEntry>> sections;
    std::string current;
    bool inSection = false;
    int lineNumber = 0;
    Findings problems;
};

std::string LowerCase(std::string_view text);

}
