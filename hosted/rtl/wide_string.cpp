#include "hosted/rtl/wide_string.h"

#include "hosted/rtl/upcase.h"

namespace hosted
{
namespace
{
constexpr unsigned Replacement = 0xFFFD;

bool IsHigh(unsigned unit)
{
    return unit >= 0xD800 && unit < 0xDC00;
}

bool IsLow(unsigned unit)
{
    return unit >= 0xDC00 && unit < 0xE000;
}

void AppendUtf8(std::string& text, unsigned code)
{
    auto trail = [&](unsigned shift) { text += static_cast<char>(0x80 | (code >> shift & 0x3F)); };
    if (code < 0x80)
    {
        text += static_cast<char>(code);
    }
    else if (code < 0x800)
    {
        text += static_cast<char>(0xC0 | code >> 6);
        trail(0);
    }
    else if (code < 0x10000)
    {
        text += static_cast<char>(0xE0 | code >> 12);
        trail(6);
        trail(0);
    }
    else
    {
        text += static_cast<char>(0xF0 | code >> 18);
        trail(12);
        trail(6);
        trail(0);
    }
}

void AppendUtf16(WideString& text, unsigned code)
{
    if (code >= 0x10000)
    {
        text += static_cast<WCHAR>(0xD800 + ((code - 0x10000) >> 10));
        code = 0xDC00 + ((code - 0x10000) & 0x3FF);
    }
    text += static_cast<WCHAR>(code);
}

// Decodes the sequence at *position and moves past it; a wrong byte counts as one character.
unsigned DecodeUtf8(std::string_view text, size_t* position)
{
    unsigned lead = static_cast<UCHAR>(text[(*position)++]);
    if (lead < 0x80)
    {
        return lead;
    }
    size_t trails = lead >= 0xF0 && lead < 0xF5 ? 3 : lead >= 0xE0 && lead < 0xF0 ? 2 : lead >= 0xC2 && lead < 0xE0;
    static constexpr unsigned Smallest[] = {0, 0x80, 0x800, 0x10000};
    unsigned code = lead & (0x3F >> trails);
    if (trails == 0 || text.size() - *position < trails)
    {
        return Replacement;
    }
    for (size_t i = 0; i < trails; ++i)
    {
        unsigned trail = static_cast<UCHAR>(text[*position + i]);
        if ((trail & 0xC0) != 0x80)
        {
            return Replacement;
        }
        code = code << 6 | (trail & 0x3F);
    }
    if (code < Smallest[trails] || code > 0x10FFFF)
    {
        return Replacement;
    }
    *position += trails;
    return code;
}
}

std::string Narrow(WideView text)
{
    std::string result;
    result.reserve(text.size());
    for (size_t i = 0; i < text.size(); ++i)
    {
        unsigned code = static_cast<USHORT>(text[i]);
        if (IsHigh(code) && i + 1 < text.size() && IsLow(static_cast<USHORT>(text[i + 1])))
        {
            ++i;
            code = 0x10000 + ((code - 0xD800) << 10) + (static_cast<USHORT>(text[i]) - 0xDC00u);
        }
        AppendUtf8(result, code);
    }
    return result;
}

WideString Widen(std::string_view text)
{
    WideString result;
    result.reserve(text.size());
    for (size_t position = 0; position < text.size();)
    {
        AppendUtf16(result, DecodeUtf8(text, &position));
    }
    return result;
}

WideView View(const UNICODE_STRING& string)
{
    return {string.Buffer, string.Length / sizeof(WCHAR)};
}

UNICODE_STRING Counted(WideView text)
{
    UNICODE_STRING string;
    string.Length = static_cast<USHORT>(text.size() * sizeof(WCHAR));
    string.MaximumLength = string.Length;
    string.Buffer = const_cast<WCHAR*>(text.data());
    return string;
}

WideString Upcase(WideView text)
{
    WideString result(text);
    for (WCHAR& character : result)
    {
        character = UpcaseCharacter(character);
    }
    return result;
}

bool EqualNoCase(WideView left, WideView right)
{
    if (left.size() != right.size())
    {
        return false;
    }
    for (size_t i = 0; i < left.size(); ++i)
    {
        if (UpcaseCharacter(left[i]) != UpcaseCharacter(right[i]))
        {
            return false;
        }
    }
    return true;
}

bool IsAtOrBelow(WideView path, WideView folder)
{
    return path.size() >= folder.size() && EqualNoCase(path.substr(0, folder.size()), folder) &&
           (path.size() == folder.size() || path[folder.size()] == L'\\');
}

bool LessNoCase::operator()(WideView left, WideView right) const
{
    size_t common = left.size() < right.size() ? left.size() : right.size();
    for (size_t i = 0; i < common; ++i)
    {
        WCHAR first = UpcaseCharacter(left[i]);
        WCHAR second = UpcaseCharacter(right[i]);
        if (first != second)
        {
            return first < second;
        }
    }
    return left.size() < right.size();
}
}
