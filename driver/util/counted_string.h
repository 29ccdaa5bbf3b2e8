// Counted UTF-16 strings that own their buffer in the driver's pool. All lengths, capacities and offsets are in bytes.
// IRQL up to DISPATCH_LEVEL throughout.
#pragma once

#include "driver/util/pool.h"

class CountedString
{
public:
    CountedString() = default;
    CountedString(const CountedString&) = delete;
    CountedString& operator=(const CountedString&) = delete;
    ~CountedString() { Free(); }

    // Replaces the content by an empty string over a zero-filled buffer. False, and the string is without a
    // buffer, when there is no memory or no counted string can have that capacity.
    bool Allocate(SIZE_T capacity);
    // Replaces the content by a copy with that capacity, or with the source's length if that is more.
    bool Copy(const UNICODE_STRING& source, SIZE_T capacity);
    // False, with nothing changed, when the text does not fit.
    bool Append(const UNICODE_STRING& text);
    bool Append(PCWSTR text);

    // Leaves an empty string without a buffer.
    void Free();
    // Hands the buffer to the caller.
    UNICODE_STRING Detach();

    const UNICODE_STRING& Get() const { return string_; }
    // For platform routines that write the content.
    PUNICODE_STRING Address() { return &string_; }

private:
    UNICODE_STRING string_ = {};
};

// Frees the buffer of a record's own string, if it has one, and empties it.
void FreeString(PUNICODE_STRING string);

// Parts of a string without a copy; they must lie within it.
UNICODE_STRING SubString(const UNICODE_STRING& string, USHORT offset, USHORT length);
inline UNICODE_STRING RightOf(const UNICODE_STRING& string, USHORT offset)
{
    return SubString(string, offset, static_cast<USHORT>(string.Length - offset));
}

inline USHORT CharacterCount(const UNICODE_STRING& string)
{
    return string.Length / sizeof(WCHAR);
}
inline bool EndsWith(const UNICODE_STRING& string, WCHAR character)
{
    USHORT count = CharacterCount(string);
    return count != 0 && string.Buffer[count - 1] == character;
}
// Case counts.
bool Contains(const UNICODE_STRING& string, WCHAR character);

// A counted string over a terminated one that outlives it; over its beginning when it is too long for one.
UNICODE_STRING CountedView(PCWSTR text);
