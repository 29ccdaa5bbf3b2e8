// Comparing path and process names. Nothing here keeps state, takes a lock or prints; only MatchNamePattern
// allocates. The tested name comes first and the pattern second; the prefix comes first and the name second.
// IRQL up to APC_LEVEL: lists are searched under their fast mutex. Not above, since the upcase table may be paged.
#pragma once

#include <ntifs.h>

// The whole of `text` against the whole of `pattern`; "*" stands for any run of characters, "?" for exactly one,
// everything else for itself in either case. A backslash is an ordinary character. Once the text has run out a "*"
// matches only as the very last pattern character, so 'abc' does not match 'abc**'.
// Both are terminated. Takes at most (length of text) x (length of pattern) steps and constant stack.
bool MatchWildcard(PCWSTR text, PCWSTR pattern);

// MatchWildcard on terminated pool copies, so a NUL inside either string ends it there. False when a pointer or a
// buffer is null, or when there is no memory for a copy.
bool MatchNamePattern(PCUNICODE_STRING name, PCUNICODE_STRING pattern);

// Same length and same characters after upcasing. False when a pointer is null. Buffers of empty strings are not read.
bool IsEqualNameNoCase(PCUNICODE_STRING first, PCUNICODE_STRING second);
// The same for the beginning of the name; an empty prefix begins every name.
bool IsPrefixNameNoCase(PCUNICODE_STRING prefix, PCUNICODE_STRING name);

// -1, 0 or 1 after folding with the C run-time library's table. A string that is a proper prefix of the other sorts
// after it. Neither pointer may be null.
LONG CompareNameNoCase(PCUNICODE_STRING first, PCUNICODE_STRING second);
