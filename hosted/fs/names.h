// File names: the parts of a path, 8.3 names, patterns.
#pragma once

#include "hosted/rtl/wide_string.h"

#include <functional>
#include <vector>

namespace hosted
{
struct ParsedPath
{
    std::vector<WideString> Components; // without the stream
    WideString Stream;                  // empty: the data of the file, or a directory itself
    bool StreamGiven = false;           // a colon was there, also in "name::$DATA"
    bool TrailingBackslash = false;
};

// Takes apart "\a\b\name:stream:$DATA" (absolute) or "b\name" (relative to an open directory or, as ":stream", to an
// open file). An empty text has no components. STATUS_OBJECT_NAME_INVALID for names that no file can have,
// STATUS_INVALID_PARAMETER for an absolute name where a relative one is needed.
NTSTATUS ParsePath(WideView text, bool relative, ParsedPath* parsed);
// One component: 1 to 255 characters, none of them reserved, neither "." nor "..".
bool IsValidName(WideView name);

// Whether the name itself has the form of an 8.3 name (in any case).
bool IsShortName(WideView name);
// The first free 8.3 name for a long name: "LONGNA~1.EXT" and on.
WideString MakeShortName(WideView longName, const std::function<bool(WideView)>& taken);

// Whether a name matches a directory query's pattern, ignoring case: `*` any characters, `?` one, and the three
// forms that the Windows subsystem makes of a program's pattern (`<` up to the last full stop, `>` one character or
// none before a full stop or the end, `"` a full stop or the end).
bool MatchesPattern(WideView pattern, WideView name);
bool HasWildcards(WideView pattern);
// Whether a directory query answers with a name: an empty pattern matches all, one without wildcards only itself.
bool MatchesQuery(WideView pattern, WideView name);
}
