// The files of the tree: what is built, and what only people and scripts read.
#pragma once

#include "tests/conformance/source/reader/source_text.h"

#include <filesystem>
#include <string>
#include <vector>

namespace source
{
struct TextFile
{
    std::string Path; // from the top of the tree
    std::string Text;
};

struct Tree
{
    std::vector<SourceText> Sources; // C and C++
    std::vector<TextFile> Texts;     // everything else
};

// Reads all below the folder but what Git keeps for itself and what was built, in the order of the paths. Throws
// std::runtime_error for what cannot be read.
Tree ReadTree(const std::filesystem::path& top);
}
