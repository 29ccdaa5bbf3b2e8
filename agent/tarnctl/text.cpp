#include "agent/tarnctl/text.h"

#include <charconv>
#include <cstdio>

namespace tarnctl
{
namespace
{
constexpr char32_t Replacement = 0xFFFD;

bool IsHighSurrogate(char32_t unit)
{
    return unit >= 0xD800 && unit < 0xDC00;
}

bool IsLowSurrogate(char32_t unit)
{
    return unit >= 0xDC00 && unit < 0xE000;
}

void AppendUtf8(std::string& text, char32_t character)
{
    if (character < 0x80)
    {
        text += static_cast<char>(character);
        return;
    }
    const int following = character < 0x800 ? 1 : character < 0x10000 ? 2 : 3;
    constexpr unsigned char Leads[] = {0, 0xC0, 0xE0, 0xF0};
    text += static_cast<char>(Leads[following] | (character >> (6 * following)));
    for (int i = following - 1; i >= 0; --i)
    {
        text += static_cast<char>(0x80 | ((character >> (6 * i)) & 0x3F));
    }
}

// Takes one character off the front; nothing when there is none in its shortest form.
std::optional<char32_t> TakeCharacter(std::string_view& text)
{
    const auto lead = static_cast<unsigned char>(text.front());
    const size_t following = lead < 0x80 ? 0 : (lead & 0xE0) == 0xC0 ? 1 : (lead & 0xF0) == 0xE0 ? 2 : 3;
    if (lead >= 0x80 && (lead < 0xC2 || lead > 0xF4))
    {
        return std::nullopt;
    }
    if (text.size() <= following)
    {
        return std::nullopt;
    }
    char32_t character = following == 0 ? lead : lead & (0x3Fu >> following);
    for (size_t i = 1; i <= following; ++i)
    {
        const auto unit = static_cast<unsigned char>(text[i]);
        if ((unit & 0xC0) != 0x80)
        {
            return std::nullopt;
        }
        character = (character << 6) | (unit & 0x3F);
    }
    constexpr char32_t Smallest[] = {0, 0x80, 0x800, 0x10000};
    if (character < Smallest[following] || character > 0x10FFFF || (character >= 0xD800 && character < 0xE000))
    {
        return std::nullopt;
    }
    text.remove_prefix(following + 1);
    return character;
}
}

std::optional<std::u16string> ToUtf16(std::string_view text)
{
    std::u16string result;
    while (!text.empty())
    {
        const std::optional<char32_t> character = TakeCharacter(text);
        if (!character)
        {
            return std::nullopt;
        }
        if (*character < 0x10000)
        {
            result += static_cast<char16_t>(*character);
            continue;
        }
        result += static_cast<char16_t>(0xD800 + ((*character - 0x10000) >> 10));
        result += static_cast<char16_t>(0xDC00 + ((*character - 0x10000) & 0x3FF));
    }
    return result;
}

std::string ToUtf8(std::u16string_view text)
{
    std::string result;
    for (size_t i = 0; i < text.size(); ++i)
    {
        char32_t character = text[i];
        if (IsHighSurrogate(character) && i + 1 < text.size() && IsLowSurrogate(text[i + 1]))
        {
            character = 0x10000 + ((character - 0xD800) << 10) + (text[++i] - 0xDC00u);
        }
        else if (IsHighSurrogate(character) || IsLowSurrogate(character))
        {
            character = Replacement;
        }
        AppendUtf8(result, character);
    }
    return result;
}

std::string Printable(std::string_view text)
{
    std::string result;
    for (const char unit : text)
    {
        if (static_cast<unsigned char>(unit) >= 0x20 && unit != 0x7F)
        {
            result += unit;
            continue;
        }
        char escape[8];
        std::snprintf(escape, sizeof(escape), "\\x%02X", static_cast<unsigned>(static_cast<unsigned char>(unit)));
        result += escape;
    }
    return result;
}

std::optional<std::uint64_t> ParseNumber(std::string_view text)
{
    const bool hexadecimal = text.starts_with("0x") || text.starts_with("0X");
    if (hexadecimal)
    {
        text.remove_prefix(2);
    }
    std::uint64_t value = 0;
    const char* end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, value, hexadecimal ? 16 : 10);
    if (error != std::errc() || stop != end)
    {
        return std::nullopt;
    }
    return value;
}
}
