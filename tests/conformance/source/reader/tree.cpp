#include "tests/conformance/source/reader/tree.h"

#include <algorithm>
#include <fstream>
#include <iterator>
#include <stdexcept>

namespace source
{
namespace
{
namespace fs = std::filesystem;

std::string ReadFile(const fs::path& path)
{
    std::ifstream file(path, std::ios::binary);
    std::string text(std::istreambuf_iterator<char>(file), {});
    if (!file)
    {
        throw std::runtime_error("cannot read " + path.string());
    }
    return text;
}

bool IsSource(const fs::path& path)
{
    const fs::path extension = path.extension();
    return extension == ".cpp" || extension == ".h" || extension == ".c";
}
}

Tree ReadTree(const fs::path& top)
{
    std::vector<std::string> paths;
    for (auto entry = fs::recursive_directory_iterator(top); entry != fs::recursive_directory_iterator(); ++entry)
    {
        const std::string name = entry->path().filename();
        if (entry->is_directory() && (name == ".git" || (entry.depth() == 0 && name == "build")))
        {
            entry.disable_recursion_pending();
        }
        // In a further working tree .git is a file.
        else if (entry->is_regular_file() && name != ".git")
        {
            paths.push_back(entry->path().lexically_relative(top));
        }
    }
    std::sort(paths.begin(), paths.end());

    Tree tree;
    for (const std::string& path : paths)
    {
        std::string text = ReadFile(top / path);
        if (IsSource(path))
        {
            tree.Sources.push_back(ReadSource(path, std::move(text)));
        }
        else
        {
            tree.Texts.push_back({path, std::move(text)});
        }
    }
    return tree;
}
}
