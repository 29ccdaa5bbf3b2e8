#include "hosted/fs/names.h"

namespace hosted
{
namespace
{
constexpr size_t LongestName = 255;
constexpr WideView DataStreamType = L"$DATA";

bool IsReservedCharacter(WCHAR character)
{
    return character < 0x20 || WideView(L"<>\"/\\|?*:").find(character) != WideView::npos;
}

// The last component with its stream: "name", "name:stream", "name:stream:$DATA", "name::$DATA".
bool ParseStream(WideView text, WideString* name, ParsedPath* parsed)
{
    const size_t colon = text.find(L':');
    *name = text.substr(0, colon);
    if (colon == WideView::npos)
    {
        return true;
    }
    parsed->StreamGiven = true;
    WideView stream = text.substr(colon + 1);
    const size_t typeColon = stream.find(L':');
    const bool typed = typeColon != WideView::npos;
    if (typed && !EqualNoCase(stream.substr(typeColon + 1), DataStreamType))
    {
        return false;
    }
    stream = stream.substr(0, typeColon);
    parsed->Stream = stream;
    return stream.size() <= LongestName && stream.find(L'/') == WideView::npos &&
           stream.find(WCHAR(0)) == WideView::npos && (typed || !stream.empty());
}
}

bool IsValidName(WideView name)
{
    if (name.empty() || name.size() > LongestName || name == WideView(L".") || name == WideView(L".."))
    {
        return false;
    }
    for (WCHAR character : name)
    {
        if (IsReservedCharacter(character))
        {
            return false;
        }
    }
    return true;
}

NTSTATUS ParsePath(WideView text, bool relative, ParsedPath* parsed)
{
    *parsed = {};
    const bool rooted = !text.empty() && text[0] == L'\\';
    if (rooted == relative && !text.empty())
    {
        return rooted ? STATUS_INVALID_PARAMETER : STATUS_OBJECT_NAME_INVALID;
    }
    WideView rest = rooted ? text.substr(1) : text;
    if (!rest.empty() && rest.back() == L'\\')
    {
        parsed->TrailingBackslash = true;
        rest.remove_suffix(1);
        if (rest.empty())
        {
            return STATUS_OBJECT_NAME_INVALID;
        }
    }
    while (!rest.empty())
    {
        const size_t end = rest.find(L'\\');
        WideString name(rest.substr(0, end));
        const bool last = end == WideView::npos;
        if (last && !ParseStream(rest, &name, parsed))
        {
            return STATUS_OBJECT_NAME_INVALID;
        }
        // ":stream" alone names a stream of what the path is relative to, or of the root directory.
        const bool streamOnly = name.empty() && parsed->StreamGiven && parsed->Components.empty();
        if (!streamOnly)
        {
            if (!IsValidName(name))
            {
                return STATUS_OBJECT_NAME_INVALID;
            }
            parsed->Components.push_back(std::move(name));
        }
        if (!last && end + 1 == rest.size())
        {
            return STATUS_OBJECT_NAME_INVALID;
        }
        rest = last ? WideView() : rest.substr(end + 1);
    }
    return parsed->TrailingBackslash && parsed->StreamGiven ? STATUS_OBJECT_NAME_INVALID : STATUS_SUCCESS;
}

bool HasWildcards(WideView pattern)
{
    return pattern.find_first_of(L"*?<>\"") != WideView::npos;
}

namespace
{
// Both upcased. Recursion only at stars.
bool Matches(WideView pattern, WideView name)
{
    for (; !pattern.empty(); pattern.remove_prefix(1))
    {
        const WCHAR wanted = pattern[0];
        if (wanted == L'*' || wanted == L'<')
        {
            const size_t lastDot = name.rfind(L'.');
            for (size_t skipped = 0; skipped <= name.size(); ++skipped)
            {
                if (Matches(pattern.substr(1), name.substr(skipped)))
                {
                    return true;
                }
                if (wanted == L'<' && skipped == lastDot)
                {
                    return false;
                }
            }
            return false;
        }
        const bool atDotOrEnd = name.empty() || name[0] == L'.';
        if (wanted == L'>' && atDotOrEnd)
        {
            continue;
        }
        if (wanted == L'"' && name.empty())
        {
            continue;
        }
        if (name.empty())
        {
            return false;
        }
        const bool any = wanted == L'?' || wanted == L'>';
        if (!any && name[0] != (wanted == L'"' ? L'.' : wanted))
        {
            return false;
        }
        name.remove_prefix(1);
    }
    return name.empty();
}
}

bool MatchesPattern(WideView pattern, WideView name)
{
    if (pattern.empty() || pattern == WideView(L"*"))
    {
        return true;
    }
    return Matches(Upcase(pattern), Upcase(name));
}

bool MatchesQuery(WideView pattern, WideView name)
{
    return HasWildcards(pattern) ? MatchesPattern(pattern, name) : pattern.empty() || EqualNoCase(pattern, name);
}
}
