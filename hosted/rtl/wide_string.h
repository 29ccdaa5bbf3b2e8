// UTF-16 strings of the hosted kernel. The C++ library's own wide strings assume 32-bit characters, so these have
// their own traits.
#pragma once

#include <ntifs.h>

#include <string>
#include <string_view>

namespace hosted
{
struct WideTraits
{
    using char_type = WCHAR;
    using int_type = unsigned int;
    using off_type = std::streamoff;
    using pos_type = std::streampos;
    using state_type = std::mbstate_t;

    static constexpr void assign(char_type& left, const char_type& right) noexcept { left = right; }
    static constexpr bool eq(char_type left, char_type right) noexcept { return left == right; }
    static constexpr bool lt(char_type left, char_type right) noexcept { return left < right; }
    static constexpr int compare(const char_type* left, const char_type* right, size_t count) noexcept
    {
        for (size_t i = 0; i < count; ++i)
        {
            if (left[i] != right[i])
            {
                return left[i] < right[i] ? -1 : 1;
            }
        }
        return 0;
    }
    static constexpr size_t length(const char_type* text) noexcept
    {
        size_t count = 0;
        while (text[count] != 0)
        {
            ++count;
        }
        return count;
    }
    static constexpr const char_type* find(const char_type* text, size_t count, const char_type& wanted) noexcept
    {
        for (size_t i = 0; i < count; ++i)
        {
            if (text[i] == wanted)
            {
                return text + i;
            }
        }
        return nullptr;
    }
    static constexpr char_type* move(char_type* to, const char_type* from, size_t count) noexcept
    {
        return static_cast<char_type*>(__builtin_memmove(to, from, count * sizeof(char_type)));
    }
    static constexpr char_type* copy(char_type* to, const char_type* from, size_t count) noexcept
    {
        return static_cast<char_type*>(__builtin_memcpy(to, from, count * sizeof(char_type)));
    }
    static constexpr char_type* assign(char_type* to, size_t count, char_type value) noexcept
    {
        for (size_t i = 0; i < count; ++i)
        {
            to[i] = value;
        }
        return to;
    }
    static constexpr int_type not_eof(int_type value) noexcept { return value == eof() ? 0 : value; }
    static constexpr char_type to_char_type(int_type value) noexcept { return static_cast<char_type>(value); }
    static constexpr int_type to_int_type(char_type value) noexcept { return value; }
    static constexpr bool eq_int_type(int_type left, int_type right) noexcept { return left == right; }
    static constexpr int_type eof() noexcept { return 0xffffffffu; }
};

using WideString = std::basic_string<WCHAR, WideTraits>;
using WideView = std::basic_string_view<WCHAR, WideTraits>;

// UTF-16 to UTF-8 and back. Lone surrogates survive the round trip (they are encoded as three bytes).
std::string Narrow(WideView text);
WideString Widen(std::string_view text);

// The characters of a counted string (Length bytes, rounded down to whole characters).
WideView View(const UNICODE_STRING& string);
// A counted string over the view's characters; the view must outlive it.
UNICODE_STRING Counted(WideView text);

// Folding with the system's upcase table.
WideString Upcase(WideView text);
bool EqualNoCase(WideView left, WideView right);
// Whether the path, a backslash before each component, is that of the folder or of something inside it.
bool IsAtOrBelow(WideView path, WideView folder);
// A strict weak order for containers keyed by names that ignore case.
struct LessNoCase
{
    using is_transparent = void;
    bool operator()(WideView left, WideView right) const;
};
}
