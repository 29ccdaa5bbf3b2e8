#include "driver/config/base64.h"

namespace
{
constexpr ULONG GroupCharacters = 4;
constexpr ULONG GroupBytes = 3;

// The six bits of a character; 0 for whatever is in neither alphabet.
UCHAR BitsOf(WCHAR character)
{
    if (character >= L'A' && character <= L'Z')
    {
        return static_cast<UCHAR>(character - L'A');
    }
    if (character >= L'a' && character <= L'z')
    {
        return static_cast<UCHAR>(character - L'a' + 26);
    }
    if (character >= L'0' && character <= L'9')
    {
        return static_cast<UCHAR>(character - L'0' + 52);
    }
    switch (character)
    {
    case L'+':
    case L'-':
    case L'.':
        return 62;
    case L'/':
    case L'_':
    case L',':
        return 63;
    default:
        return 0;
    }
}

void DecodeGroup(PCWSTR text, PUCHAR output)
{
    ULONG bits = 0;
    for (ULONG i = 0; i < GroupCharacters; ++i)
    {
        bits = bits << 6 | BitsOf(text[i]);
    }
    output[0] = static_cast<UCHAR>(bits >> 16);
    output[1] = static_cast<UCHAR>(bits >> 8);
    output[2] = static_cast<UCHAR>(bits);
}

// The last group, of 1 to 4 characters, gives one byte or two. Returns how many.
ULONG DecodeShortGroup(PCWSTR text, ULONG count, PUCHAR output)
{
    auto isPresent = [text, count](ULONG index) { return index < count && text[index] != L'='; };
    UCHAR first = BitsOf(text[0]);
    UCHAR second = isPresent(1) ? BitsOf(text[1]) : 0;
    output[0] = static_cast<UCHAR>(first << 2 | second >> 4);
    if (!isPresent(2))
    {
        return 1;
    }
    output[1] = static_cast<UCHAR>(second << 4 | BitsOf(text[2]) >> 2);
    return 2;
}
}

bool DecodeBase64(PCWSTR text, ULONG count, PUCHAR output, PULONG outputBytes)
{
    if (text == nullptr || count == 0 || output == nullptr || outputBytes == nullptr || *outputBytes == 0)
    {
        return false;
    }
    bool hasShortGroup = count % GroupCharacters != 0 || text[count - 1] == L'=';
    ULONG groups = count / GroupCharacters + (count % GroupCharacters != 0 ? 1 : 0);
    ULONG fullGroups = groups - (hasShortGroup ? 1 : 0);
    // In 64 bits, since the count may be any number.
    ULONGLONG written = static_cast<ULONGLONG>(fullGroups) * GroupBytes;
    if (*outputBytes <= written + (hasShortGroup ? 1 : 0))
    {
        return false;
    }
    for (ULONG i = 0; i < fullGroups; ++i)
    {
        DecodeGroup(text + SIZE_T{i} * GroupCharacters, output + SIZE_T{i} * GroupBytes);
    }
    if (hasShortGroup)
    {
        ULONG fullCharacters = fullGroups * GroupCharacters;
        written += DecodeShortGroup(text + fullCharacters, count - fullCharacters, output + written);
    }
    *outputBytes = static_cast<ULONG>(written);
    return true;
}
