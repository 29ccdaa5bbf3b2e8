#include "driver/util/name_matching.h"

#include "driver/util/counted_string.h"

namespace
{
bool EqualCharacters(PCWSTR first, PCWSTR second, USHORT count)
{
    for (USHORT i = 0; i < count; ++i)
    {
        if (RtlUpcaseUnicodeChar(first[i]) != RtlUpcaseUnicodeChar(second[i]))
        {
            return false;
        }
    }
    return true;
}

// A terminated copy; empty when there is no memory.
PoolPointer<WCHAR> TerminatedCopy(const UNICODE_STRING& string)
{
    auto copy = PoolPointer<WCHAR>::Allocate(string.Length + sizeof(WCHAR));
    if (copy)
    {
        // Whole characters, so that the terminator lies within the copy.
        RtlCopyMemory(copy.Get(), string.Buffer, CharacterCount(string) * sizeof(WCHAR));
    }
    return copy;
}
}

// A star is tried with the shortest run first. When what follows it fails on the text at hand, only the latest star
// has to give up one more character: an earlier star could do no better than the place that the later one already
// reached. The one thing that plain backtracking would do beyond that is to run the text out under the star, and
// there a star is allowed only as the last pattern character.
bool MatchWildcard(PCWSTR text, PCWSTR pattern)
{
    PCWSTR star = nullptr;
    PCWSTR starText = nullptr;
    for (;;)
    {
        if (*pattern == L'*')
        {
            if (*text == UNICODE_NULL)
            {
                return pattern[1] == UNICODE_NULL;
            }
            star = pattern++;
            starText = text;
            continue;
        }
        if (*pattern == UNICODE_NULL && *text == UNICODE_NULL)
        {
            return true;
        }
        bool advances = *pattern != UNICODE_NULL && *text != UNICODE_NULL &&
                        (*pattern == L'?' || RtlUpcaseUnicodeChar(*text) == RtlUpcaseUnicodeChar(*pattern));
        if (advances)
        {
            ++text;
            ++pattern;
            continue;
        }
        if (star == nullptr)
        {
            return false;
        }
        ++starText;
        if (*starText == UNICODE_NULL)
        {
            return star[1] == UNICODE_NULL;
        }
        text = starText;
        pattern = star + 1;
    }
}

bool MatchNamePattern(PCUNICODE_STRING name, PCUNICODE_STRING pattern)
{
    if (name == nullptr || pattern == nullptr || name->Buffer == nullptr || pattern->Buffer == nullptr)
    {
        return false;
    }
    auto nameCopy = TerminatedCopy(*name);
    if (!nameCopy)
    {
        return false;
    }
    auto patternCopy = TerminatedCopy(*pattern);
    return patternCopy && MatchWildcard(nameCopy.Get(), patternCopy.Get());
}

bool IsEqualNameNoCase(PCUNICODE_STRING first, PCUNICODE_STRING second)
{
    if (first == nullptr || second == nullptr || first->Length != second->Length)
    {
        return false;
    }
    return EqualCharacters(first->Buffer, second->Buffer, CharacterCount(*first));
}

bool IsPrefixNameNoCase(PCUNICODE_STRING prefix, PCUNICODE_STRING name)
{
    if (prefix == nullptr || name == nullptr || prefix->Length > name->Length)
    {
        return false;
    }
    return EqualCharacters(prefix->Buffer, name->Buffer, CharacterCount(*prefix));
}

LONG CompareNameNoCase(PCUNICODE_STRING first, PCUNICODE_STRING second)
{
    USHORT firstCount = CharacterCount(*first);
    USHORT secondCount = CharacterCount(*second);
    USHORT count = firstCount < secondCount ? firstCount : secondCount;
    for (USHORT i = 0; i < count; ++i)
    {
        WCHAR a = static_cast<WCHAR>(towupper(first->Buffer[i]));
        WCHAR b = static_cast<WCHAR>(towupper(second->Buffer[i]));
        if (a != b)
        {
            return a > b ? 1 : -1;
        }
    }
    if (first->Length == second->Length)
    {
        return 0;
    }
    return first->Length < second->Length ? 1 : -1;
}
