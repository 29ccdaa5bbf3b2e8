// Names of the host's files as names of this system.
#include "hosted/fs/folder/folder_volume.h"

#include <cstdint>

namespace hosted
{
namespace
{
constexpr WCHAR MappedBase = 0xf000;
constexpr WCHAR MappedLast = 0xf0ff;
constexpr size_t LongestLinuxName = 255;

bool IsUnheld(uint32_t character, bool last)
{
    const bool atEnd = last && (character == ' ' || character == '.');
    const bool reserved = character < 0x80 && character != 0 &&
                          std::string_view("\"*:<>?\\|").find(static_cast<char>(character)) != std::string::npos;
    return (character >= 1 && character < 0x20) || atEnd || reserved;
}

// Takes one character off the front; false when the bytes are no UTF-8 in its shortest form.
bool TakeCharacter(std::string_view* bytes, uint32_t* character)
{
    const auto first = static_cast<uint8_t>(bytes->front());
    size_t length = first < 0x80 ? 1 : first >= 0xc2 && first < 0xe0 ? 2 : first >= 0xe0 && first < 0xf0 ? 3 : 4;
    if ((first >= 0x80 && first < 0xc2) || first > 0xf4 || bytes->size() < length)
    {
        return false;
    }
    *character = length == 1 ? first : first & (0x7f >> length);
    for (size_t i = 1; i < length; ++i)
    {
        const auto next = static_cast<uint8_t>((*bytes)[i]);
        if ((next & 0xc0) != 0x80)
        {
            return false;
        }
        *character = *character << 6 | (next & 0x3f);
    }
    const bool shortest = (length < 3 || *character >= 0x800) && (length < 4 || *character >= 0x10000);
    const bool surrogate = *character >= 0xd800 && *character < 0xe000;
    bytes->remove_prefix(length);
    return shortest && !surrogate && *character <= 0x10ffff;
}

void AppendUtf16(uint32_t character, WideString* name)
{
    if (character < 0x10000)
    {
        *name += static_cast<WCHAR>(character);
        return;
    }
    *name += static_cast<WCHAR>(0xd800 + ((character - 0x10000) >> 10));
    *name += static_cast<WCHAR>(0xdc00 + ((character - 0x10000) & 0x3ff));
}

bool IsLinuxName(std::string_view bytes)
{
    return !bytes.empty() && bytes.size() <= LongestLinuxName && bytes != "." && bytes != ".." &&
           bytes.find('/') == std::string::npos && bytes.find('\0') == std::string::npos;
}
}

bool NameFromLinux(std::string_view bytes, WideString* name)
{
    name->clear();
    if (!IsLinuxName(bytes))
    {
        return false;
    }
    while (!bytes.empty())
    {
        uint32_t character;
        if (!TakeCharacter(&bytes, &character) || (character >= MappedBase && character <= MappedLast))
        {
            return false;
        }
        AppendUtf16(IsUnheld(character, bytes.empty()) ? MappedBase + character : character, name);
    }
    return true;
}

std::string NameToLinux(WideView name)
{
    WideString plain(name);
    for (WCHAR& character : plain)
    {
        if (character >= MappedBase && character <= MappedLast)
        {
            character = static_cast<WCHAR>(character - MappedBase);
        }
    }
    std::string bytes = Narrow(plain);
    WideString back;
    return NameFromLinux(bytes, &back) && back == name ? bytes : std::string();
}
}
