#include "inf_file.h"

#include <algorithm>
#include <cctype>

namespace package
{

namespace
{

std::string Trim(std::string_view text)
{
    const auto first = text.find_first_not_of(" \t");
    if (first == std::string_view::npos)
    {
        return {};
    }
    return std::string(text.substr(first, text.find_last_not_of(" \t") - first + 1));
}

// The line without its comment, which a semicolon outside quotes begins.
std::string WithoutComment(std::string_view line)
{
    bool quoted = false;
    for (std::size_t at = 0; at < line.size(); ++at)
    {
        quoted = quoted != (line[at] == '"');
        if (line[at] == ';' && !quoted)
        {
            return Trim(line.substr(0, at));
        }
    }
    return Trim(line);
}

bool IsDirectoryNumber(std::string_view key)
{
    return !key.empty() && std::ranges::all_of(key, [](unsigned char sign) { return std::isdigit(sign) != 0; });
}

}

std::string LowerCase(std::string_view text)
{
    std::string lower(text);
    std::ranges::transform(
        lower, lower.begin(), [](unsigned char sign) { return static_cast<char>(std::tolower(sign)); });
    return lower;
}

InfFile::InfFile(std::string_view text)
{
    bool plain = true;
    bool ends = true;
    while (!text.empty())
    {
        ++lineNumber;
        const std::size_t end = text.find('\n');
        std::string_view line = text.substr(0, end);
        ends = ends && end != std::string_view::npos && line.ends_with('\r');
        line = line.substr(0, line.size() - (line.ends_with('\r') ? 1 : 0));
        plain =
            plain && std::ranges::all_of(line, [](char sign) { return sign == '\t' || (sign >= ' ' && sign <= '~'); });
        ReadLine(WithoutComment(line));
        text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    }
    Require(plain, problems, "text: not plain ASCII");
    Require(ends, problems, "text: a line does not end in CR LF");
    ResolveAll();
}

void InfFile::ReadLine(std::string line)
{
    const std::string place = "text: line " + std::to_string(lineNumber);
    if (line.empty())
    {
        return;
    }
    if (line.front() == '[')
    {
        inSection = line.back() == ']';
        Require(inSection, problems, place + " is no section name");
        current = LowerCase(line.substr(1, line.size() - 2));
        Require(!inSection || !sections.contains(current), problems, place + " begins [" + current + "] again");
        if (inSection)
        {
            sections[current];
        }
        return;
    }
    if (std::ranges::count(line, '"') % 2 != 0)
    {
        problems.push_back(place + " has an open quote");
        return;
    }
    if (!inSection)
    {
        problems.push_back(place + " is outside any section");
        return;
    }
    const std::vector<std::string> sides = Split(line, '=', 2);
    InfEntry entry{sides.size() == 2 ? Trim(sides[0]) : std::string(), Split(sides.back(), ',', std::string::npos)};
    sections[current].push_back(std::move(entry));
}

// Parts between separators that stand outside quotes; the quotes are kept.
std::vector<std::string> InfFile::Split(const std::string& text, char separator, std::size_t limit)
{
    std::vector<std::string> parts(1);
    bool quoted = false;
    for (const char sign : text)
    {
        quoted = quoted != (sign == '"');
        if (sign == separator && !quoted && parts.size() < limit)
        {
            parts.emplace_back();
        }
        else
        {
            parts.back().push_back(sign);
        }
    }
    std::ranges::transform(parts, parts.begin(), [](const std::string& part) { return Trim(part); });
    return parts;
}

// Takes the quotes away and puts the strings in. Numbers between percent signs are directories, which stay.
std::string InfFile::Resolve(const std::string& text)
{
    std::string result;
    for (std::size_t at = 0; at < text.size(); ++at)
    {
        const std::size_t end = text[at] == '%' ? text.find('%', at + 1) : std::string::npos;
        if (end == std::string::npos)
        {
            if (text[at] != '"')
            {
                result.push_back(text[at]);
            }
            continue;
        }
        const std::string key = text.substr(at + 1, end - at - 1);
        const std::vector<InfEntry>& strings = Section("strings");
        const auto entry = std::ranges::find_if(
            strings, [&key](const InfEntry& candidate) { return LowerCase(candidate.Key) == LowerCase(key); });
        if (IsDirectoryNumber(key))
        {
            result += text.substr(at, end - at + 1);
        }
        else if (entry == strings.end() || entry->Values.empty())
        {
            problems.push_back("strings: %" + key + "% is not defined");
        }
        else
        {
            result += entry->Values.front();
        }
        at = end;
    }
    return result;
}

void InfFile::ResolveAll()
{
    // The strings first, since all others may refer to them.
    for (InfEntry& entry : sections["strings"])
    {
        std::erase(entry.Values.front(), '"');
    }
    for (auto& [name, entries] : sections)
    {
        for (InfEntry& entry : entries)
        {
            entry.Key = name == "strings" ? entry.Key : Resolve(entry.Key);
            for (std::string& value : entry.Values)
            {
                value = name == "strings" ? value : Resolve(value);
            }
        }
    }
}

bool InfFile::HasSection(std::string_view name) const
{
    return sections.contains(LowerCase(name));
}

const std::vector<InfEntry>& InfFile::Section(std::string_view name) const
{
    static const std::vector<InfEntry> none;
    const auto found = sections.find(LowerCase(name));
    return found == sections.end() ? none : found->second;
}

std::vector<std::string> InfFile::Values(std::string_view section, std::string_view key) const
{
    for (const InfEntry& entry : Section(section))
    {
        if (LowerCase(entry.Key) == LowerCase(key))
        {
            return entry.Values;
        }
    }
    return {};
}

std::string InfFile::Value(std::string_view section, std::string_view key) const
{
    const std::vector<std::string> values = Values(section, key);
    return values.empty() ? std::string() : values.front();
}

}
