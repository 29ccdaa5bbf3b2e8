// String literals as they stand in C++ source, for checks of the source itself.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

namespace texts
{
// Escapes are left as they stand in the source.
struct Literal
{
    std::string Text;
    bool Wide = false;
    // Nothing but operators and calls stands between this literal and the one before: both end up in one string.
    bool Continues = false;
    // In an #include line or a declaration that is no text ("C", an attribute, a static_assert's reason).
    bool Technical = false;
};

// Adjacent literals are one. Comments and character constants are passed over.
std::vector<Literal> ReadLiterals(const std::string& source);

// Every file below a folder that ends in .cpp or .h, in path order.
std::vector<std::filesystem::path> SourceFiles(const std::filesystem::path& folder);
std::string ReadFile(const std::filesystem::path& file);

// The fixed parts of a printf format, in order, without empty ones.
std::vector<std::string> FixedParts(const std::string& format);
// True when all parts occur in the text in that order.
bool ContainsInOrder(const std::string& text, const std::vector<std::string>& parts);
}
