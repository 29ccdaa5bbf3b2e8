#include "tests/conformance/source/rules/directions.h"

#include <algorithm>
#include <filesystem>
#include <map>
#include <optional>

namespace source
{
namespace
{
using Folders = std::vector<std::string_view>;

// Each folder may include those before it.
const Folders DriverHeaders = {
    "driver/util", "driver/names", "driver/process", "driver/config", "driver/log", "driver/filter", "driver/core"};
const Folders HostedKernel = {"hosted/include", "hosted/ke", "hosted/rtl", "hosted/ldr", "hosted/ex", "hosted/ob",
    "hosted/cm", "hosted/ps", "hosted/io", "hosted/cc", "hosted/flt", "hosted/fs", "hosted/fs/stream",
    "hosted/fs/folder", "hosted/fs/store", "hosted/machine"};
// Neighbours in the order above that know nothing of each other all the same.
const std::vector<std::pair<std::string_view, std::string_view>> Strangers = {
    {"hosted/fs/store", "hosted/fs/folder"}, {"hosted/ps", "hosted/cm"}, {"hosted/flt", "hosted/cc"}};

// What the folders outside of these orders may include beside themselves; a folder stands for those in it.
const std::map<std::string_view, Folders> Others = {
    {"include", {}},
    {"docs", {"include"}},
    {"windows", {}},
    {"common", {"include"}},
    // The cipher is the driver's own, so that what it wrote can be read without it.
    {"agent", {"common", "include", "driver/filter"}},
    {"demo", {"hosted", "common", "include"}},
    {"live/control", {"hosted", "common", "include"}},
    {"live/processes", {"hosted", "common", "include"}},
    {"live/mount", {"hosted", "common", "include"}},
    {"live/tarnhost", {"live", "hosted", "common", "include"}},
    {"benchmarks", {"live", "hosted", "common", "include", "driver"}},
    {"tests/support", {"hosted", "common", "include"}},
    {"tests/actors", {}},
    {"tests/conformance", {"tests/support", "hosted", "common", "include"}},
    {"tests/live", {"tests/support", "live", "common", "include"}},
    // Whole roads, through the outside interface only.
    {"tests/scenario", {"tests/support", "hosted", "common", "include"}},
    {"tests/stress", {"tests/support", "hosted", "common", "include"}},
    {"tests/unit", {"tests/support", "agent", "live", "demo", "hosted", "driver", "common", "include"}},
};

Folders PartsOf(std::string_view path)
{
    Folders parts;
    while (!path.empty())
    {
        const size_t end = std::min(path.find('/'), path.size());
        parts.push_back(path.substr(0, end));
        path.remove_prefix(std::min(end + 1, path.size()));
    }
    return parts;
}

// Whether the folder is the other or in it.
bool IsWithin(std::string_view folder, std::string_view other)
{
    return folder == other || (folder.starts_with(other) && folder[other.size()] == '/');
}

bool IsInOrder(const Folders& order, std::string_view from, std::string_view to)
{
    const auto place = std::find(order.begin(), order.end(), from);
    return std::find(order.begin(), place, to) != place;
}

bool IsKnown(std::string_view folder)
{
    return std::find(DriverHeaders.begin(), DriverHeaders.end(), folder) != DriverHeaders.end() ||
           std::find(HostedKernel.begin(), HostedKernel.end(), folder) != HostedKernel.end() ||
           Others.find(folder) != Others.end();
}

bool MayInclude(std::string_view from, std::string_view to, bool isHeader)
{
    if (from == to)
    {
        return true;
    }
    if (from.starts_with("driver/"))
    {
        return to == "include" || (isHeader ? IsInOrder(DriverHeaders, from, to) : to.starts_with("driver/"));
    }
    if (from == "hosted/include")
    {
        return to == "windows";
    }
    if (from.starts_with("hosted/"))
    {
        const bool strangers = std::find(Strangers.begin(), Strangers.end(), std::pair(from, to)) != Strangers.end();
        return to == "common" || to == "include" || (IsInOrder(HostedKernel, from, to) && !strangers);
    }
    const Folders& others = Others.at(from);
    return std::any_of(others.begin(), others.end(), [to](std::string_view other) { return IsWithin(to, other); });
}

// The file that an include means: from the top of the tree where its name begins there, else beside the source.
std::optional<std::string> IncludedFile(const SourceText& source, const Directive& directive)
{
    const std::string_view path = QuotedInclude(directive);
    if (path.empty())
    {
        return std::nullopt;
    }
    static constexpr std::string_view Tops[] = {
        "agent", "benchmarks", "common", "demo", "driver", "hosted", "include", "live", "tests", "windows"};
    const std::string_view top = PartsOf(path).front();
    if (std::find(std::begin(Tops), std::end(Tops), top) != std::end(Tops))
    {
        return std::string(path);
    }
    return (std::filesystem::path(source.Path).parent_path() / path).lexically_normal().string();
}
}

std::string FolderOf(std::string_view path)
{
    Folders parts = PartsOf(path);
    parts.pop_back();
    size_t count = 1;
    if (!parts.empty() && (parts[0] == "driver" || parts[0] == "hosted" || parts[0] == "live" || parts[0] == "tests"))
    {
        count = parts.size() > 1 && parts[1] == "fs" ? 3 : 2;
    }
    std::string folder;
    for (size_t index = 0; index < std::min(count, parts.size()); ++index)
    {
        folder += (index == 0 ? "" : "/") + std::string(parts[index]);
    }
    return folder;
}

Findings FindWrongIncludes(const SourceText& source)
{
    const std::string from = FolderOf(source.Path);
    if (!IsKnown(from))
    {
        return {{source.Path, 1, "no table says what " + from + " may include"}};
    }
    Findings findings;
    for (const Directive& directive : source.Directives)
    {
        const std::optional<std::string> file = IncludedFile(source, directive);
        if (file && !MayInclude(from, FolderOf(*file), source.IsHeader()))
        {
            findings.push_back({source.Path, directive.Line, from + " may not include " + *file});
        }
    }
    return findings;
}

Findings FindTestFramework(const SourceText& source)
{
    Findings findings;
    for (const Directive& directive : source.Directives)
    {
        const std::string_view path = AngledInclude(directive);
        if (!source.Path.starts_with("tests/") && (path.starts_with("gtest/") || path.starts_with("gmock/")))
        {
            findings.push_back({source.Path, directive.Line, std::string(path) + " is for tests alone"});
        }
    }
    return findings;
}

Findings FindMutualPairs(const std::vector<SourceText>& sources)
{
    // The first include from one folder into the other.
    std::map<std::pair<std::string, std::string>, std::pair<const SourceText*, int>> edges;
    for (const SourceText& source : sources)
    {
        const std::string from = FolderOf(source.Path);
        for (const Directive& directive : source.Directives)
        {
            const std::optional<std::string> file = IncludedFile(source, directive);
            const bool counts = source.IsHeader() || !from.starts_with("driver/");
            if (file && counts && FolderOf(*file) != from)
            {
                edges.try_emplace({from, FolderOf(*file)}, &source, directive.Line);
            }
        }
    }
    Findings findings;
    for (const auto& [edge, place] : edges)
    {
        if (edge.first < edge.second && edges.contains({edge.second, edge.first}))
        {
            findings.push_back(
                {place.first->Path, place.second, edge.first + " and " + edge.second + " include each other"});
        }
    }
    return findings;
}
}
