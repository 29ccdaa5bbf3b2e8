// Where the hosted kernel and Wine are known to answer differently, and why that is right.
#pragma once

#include <cstddef>
#include <span>
#include <string_view>

namespace platform
{
// In the first two "*" stands for any characters and "?" for one.
struct Difference
{
    std::string_view Questions;
    std::string_view Here; // what the hosted kernel answers to each of them
    size_t Count;          // how many of the questions differ, no more and no less
    std::string_view Reason;
    std::string_view Decides; // the documentation that settles it, by Microsoft unless said otherwise
};
std::span<const Difference> KnownDifferences();

// Whether the text has the pattern's form.
bool IsLike(std::string_view text, std::string_view pattern);
}
