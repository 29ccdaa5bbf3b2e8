// UTF-8, which the program works in, and UTF-16, which the driver works in; texts to show and to read.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace tarnctl
{
// Nothing when the text is no UTF-8.
std::optional<std::u16string> ToUtf16(std::string_view text);
// Half surrogate pairs become U+FFFD.
std::string ToUtf8(std::u16string_view text);
// With control characters as \xHH, so that a name from elsewhere cannot steer a terminal.
std::string Printable(std::string_view text);
// Decimal, or hexadecimal after 0x; nothing for everything else.
std::optional<std::uint64_t> ParseNumber(std::string_view text);
}
