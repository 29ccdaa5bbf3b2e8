#include "tests/live/test/live_volume.h"

#include <cstring>
#include <fstream>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace live_test
{
namespace fs = std::filesystem;

namespace
{
constexpr size_t RunBytes = 32;
// A run of that length anywhere holds a piece of half the length at one of these steps.
constexpr size_t PieceBytes = 16;

std::string Contents(const fs::path& path)
{
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

bool IsOneValue(std::string_view bytes)
{
    return bytes.find_first_not_of(bytes[0]) == std::string_view::npos;
}

std::vector<fs::path> FilesBelow(const fs::path& folder)
{
    std::vector<fs::path> files;
    for (const fs::directory_entry& entry : fs::recursive_directory_iterator(folder))
    {
        if (entry.is_regular_file() && !entry.is_symlink())
        {
            files.push_back(entry.path());
        }
    }
    return files;
}

// How many bytes the two share around a common piece; those at both ends that only repeat one value do not count, since
// holes are kept as such.
size_t CommonAround(std::string_view left, size_t leftAt, std::string_view right, size_t rightAt)
{
    size_t before = 0;
    while (before < leftAt && before < rightAt && left[leftAt - before - 1] == right[rightAt - before - 1])
    {
        ++before;
    }
    size_t after = 0;
    while (leftAt + after < left.size() && rightAt + after < right.size() &&
           left[leftAt + after] == right[rightAt + after])
    {
        ++after;
    }
    std::string_view run = left.substr(leftAt - before, before + after);
    while (run.size() > 1 && run[0] == run[1])
    {
        run.remove_prefix(1);
    }
    while (run.size() > 1 && run[run.size() - 1] == run[run.size() - 2])
    {
        run.remove_suffix(1);
    }
    return run.size();
}
}

std::string FindPlainRun(const fs::path& plain, const fs::path& other)
{
    std::vector<std::string> texts;
    std::unordered_map<std::string_view, std::pair<size_t, size_t>> pieces;
    for (const fs::path& path : FilesBelow(plain))
    {
        texts.push_back(Contents(path));
    }
    for (size_t text = 0; text < texts.size(); ++text)
    {
        for (size_t at = 0; at + PieceBytes <= texts[text].size(); at += PieceBytes)
        {
            const std::string_view piece(texts[text].data() + at, PieceBytes);
            if (!IsOneValue(piece))
            {
                pieces.emplace(piece, std::pair{text, at});
            }
        }
    }
    for (const fs::path& path : FilesBelow(other))
    {
        const std::string bytes = Contents(path);
        for (size_t at = 0; at + PieceBytes <= bytes.size(); ++at)
        {
            const auto found = pieces.find(std::string_view(bytes.data() + at, PieceBytes));
            if (found != pieces.end() &&
                CommonAround(texts[found->second.first], found->second.second, bytes, at) >= RunBytes)
            {
                return path.string() + " at " + std::to_string(at) + ": \"" + bytes.substr(at, PieceBytes) + "\"";
            }
        }
    }
    return {};
}
}
