// Names for programs that know no others: eight characters, a full stop, three characters.
#include "hosted/fs/names.h"

namespace hosted
{
namespace
{
constexpr size_t BaseLimit = 8;
constexpr size_t ExtensionLimit = 3;
// So many names keep six characters of the long one; then two of them and a checksum must do, or directories full of
// similar names would take a walk through all numbers for each.
constexpr unsigned PlainNumbers = 4;

bool IsShortCharacter(WCHAR character)
{
    return character > 0x20 && character < 0x7f && WideView(L"\"*+,./:;<=>?[\\]|").find(character) == WideView::npos;
}

bool AllShort(WideView text)
{
    for (WCHAR character : text)
    {
        if (!IsShortCharacter(character))
        {
            return false;
        }
    }
    return true;
}

// Upcased, without blanks and full stops, other characters replaced where they are not allowed.
WideString Reduce(WideView text, size_t limit)
{
    WideString reduced;
    for (WCHAR character : Upcase(text))
    {
        if (character != L' ' && character != L'.' && reduced.size() < limit)
        {
            reduced += IsShortCharacter(character) ? character : L'_';
        }
    }
    return reduced;
}

WideString Digits(unsigned number, unsigned base, size_t least)
{
    WideString text;
    do
    {
        text.insert(text.begin(), WideView(L"0123456789ABCDEF")[number % base]);
        number /= base;
    } while (number != 0 || text.size() < least);
    return text;
}

USHORT Checksum(WideView name)
{
    unsigned sum = 0;
    for (WCHAR character : name)
    {
        sum = sum * 0x25 + character;
    }
    return static_cast<USHORT>(sum ^ (sum >> 16));
}
}

bool IsShortName(WideView name)
{
    const size_t dot = name.find(L'.');
    const WideView base = name.substr(0, dot);
    const WideView extension = dot == WideView::npos ? WideView() : name.substr(dot + 1);
    return !base.empty() && base.size() <= BaseLimit && extension.size() <= ExtensionLimit &&
           (dot == WideView::npos || !extension.empty()) && AllShort(base) && AllShort(extension);
}

WideString MakeShortName(WideView longName, const std::function<bool(WideView)>& taken)
{
    // A full stop at the very start belongs to the base.
    size_t dot = longName.rfind(L'.');
    if (dot != WideView::npos && longName.find_first_not_of(L". ") > dot)
    {
        dot = WideView::npos;
    }
    WideString extension;
    if (dot != WideView::npos)
    {
        extension = Reduce(longName.substr(dot + 1), ExtensionLimit);
        if (!extension.empty())
        {
            extension.insert(extension.begin(), L'.');
        }
    }
    const WideString base = Reduce(longName.substr(0, dot), BaseLimit);
    const WideString summed = base.substr(0, 2) + Digits(Checksum(longName), 16, 4);
    for (unsigned number = 1;; ++number)
    {
        const bool plain = number <= PlainNumbers;
        const WideString tail = WideString(L"~") + Digits(plain ? number : number - PlainNumbers, 10, 1);
        const WideString& stem = plain ? base : summed;
        WideString name = stem.substr(0, BaseLimit - tail.size()) + tail + extension;
        if (!taken(name))
        {
            return name;
        }
    }
}
}
