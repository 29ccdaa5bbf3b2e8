#include "hosted/rtl/format.h"

#include "hosted/ke/bug_check.h"

#include <optional>

namespace hosted
{
namespace
{
// A counted narrow string; the kernel's formatter takes both kinds by %Z.
struct NarrowCounted
{
    USHORT Length;
    USHORT MaximumLength;
    const char* Buffer;
};

enum class Size
{
    Default,
    Short,
    Long,
    Wide,
    Bits32,
    Bits64
};

struct Conversion
{
    bool Left = false;
    bool Plus = false;
    bool Blank = false;
    bool Alternate = false;
    bool Zero = false;
    size_t Width = 0;
    std::optional<size_t> Precision;
    Size ArgumentSize = Size::Default;
    WCHAR Kind = 0;
};

WideString WidenBytes(std::string_view bytes)
{
    WideString result;
    for (char byte : bytes)
    {
        result += static_cast<WCHAR>(static_cast<UCHAR>(byte));
    }
    return result;
}

// Length of a terminated string of which no more than `limit` characters may be looked at.
template <class Character>
size_t BoundedLength(const Character* text, std::optional<size_t> limit)
{
    size_t length = 0;
    while ((!limit || length < *limit) && text[length] != 0)
    {
        ++length;
    }
    return length;
}

class Formatter
{
public:
    Formatter(FormatFamily family, WideView format, __builtin_ms_va_list* arguments)
        : family_(family), format_(format), arguments_(arguments)
    {
    }

    WideString Run()
    {
        while (position_ < format_.size())
        {
            WCHAR character = format_[position_++];
            if (character != L'%')
            {
                text_ += character;
            }
            else if (position_ < format_.size())
            {
                Conversion conversion = Parse();
                Convert(conversion);
            }
        }
        return std::move(text_);
    }

private:
    Conversion Parse();
    void ParseFlags(Conversion& conversion);
    void ParseWidth(Conversion& conversion);
    void ParseSize(Conversion& conversion);
    void Convert(const Conversion& conversion);
    void ConvertSigned(const Conversion& conversion);
    void ConvertUnsigned(const Conversion& conversion, unsigned base, bool upper);
    void ConvertCharacter(const Conversion& conversion);
    void ConvertString(const Conversion& conversion);
    void ConvertCounted(const Conversion& conversion);
    void EmitNumber(const Conversion& conversion, WideView prefix, ULONGLONG magnitude, unsigned base, bool upper);
    void Emit(const Conversion& conversion, WideView prefix, WideView body, bool zeroes);
    ULONGLONG NextInteger(const Conversion& conversion, bool isSigned);
    bool TakesWide(const Conversion& conversion, WCHAR defaultKind) const;

    WideString FromNarrow(std::string_view bytes) const
    {
        return family_ == FormatFamily::Narrow ? Widen(bytes) : WidenBytes(bytes);
    }

    // Past the end there is a terminator.
    WCHAR Peek() const { return position_ < format_.size() ? format_[position_] : WCHAR{0}; }

    bool Accept(WideView expected)
    {
        if (format_.substr(position_, expected.size()) != expected)
        {
            return false;
        }
        position_ += expected.size();
        return true;
    }

    size_t ParseNumber()
    {
        size_t value = 0;
        while (Peek() >= L'0' && Peek() <= L'9')
        {
            value = value * 10 + static_cast<size_t>(Peek() - L'0');
            ++position_;
        }
        return value;
    }

    const FormatFamily family_;
    const WideView format_;
    __builtin_ms_va_list* const arguments_;
    size_t position_ = 0;
    WideString text_;
};

Conversion Formatter::Parse()
{
    Conversion conversion;
    ParseFlags(conversion);
    ParseWidth(conversion);
    ParseSize(conversion);
    conversion.Kind = Peek();
    if (position_ < format_.size())
    {
        ++position_;
    }
    return conversion;
}

void Formatter::ParseFlags(Conversion& conversion)
{
    for (;; ++position_)
    {
        switch (Peek())
        {
        case L'-':
            conversion.Left = true;
            break;
        case L'+':
            conversion.Plus = true;
            break;
        case L' ':
            conversion.Blank = true;
            break;
        case L'#':
            conversion.Alternate = true;
            break;
        case L'0':
            conversion.Zero = true;
            break;
        default:
            return;
        }
    }
}

void Formatter::ParseWidth(Conversion& conversion)
{
    if (Accept(L"*"))
    {
        int width = __builtin_va_arg(*arguments_, int);
        conversion.Left = conversion.Left || width < 0;
        conversion.Width = static_cast<size_t>(width < 0 ? -static_cast<LONGLONG>(width) : width);
    }
    else
    {
        conversion.Width = ParseNumber();
    }
    if (!Accept(L"."))
    {
        return;
    }
    if (Accept(L"*"))
    {
        int precision = __builtin_va_arg(*arguments_, int);
        if (precision >= 0)
        {
            conversion.Precision = static_cast<size_t>(precision);
        }
        return;
    }
    conversion.Precision = ParseNumber();
}

void Formatter::ParseSize(Conversion& conversion)
{
    if (Accept(L"I64") || Accept(L"ll"))
    {
        conversion.ArgumentSize = Size::Bits64;
    }
    else if (Accept(L"I32"))
    {
        conversion.ArgumentSize = Size::Bits32;
    }
    else if (Accept(L"I"))
    {
        conversion.ArgumentSize = Size::Bits64;
    }
    else if (Accept(L"h"))
    {
        conversion.ArgumentSize = Size::Short;
    }
    else if (Accept(L"l"))
    {
        conversion.ArgumentSize = Size::Long;
    }
    else if (Accept(L"w"))
    {
        conversion.ArgumentSize = Size::Wide;
    }
}

void Formatter::Convert(const Conversion& conversion)
{
    switch (conversion.Kind)
    {
    case L'd':
    case L'i':
        return ConvertSigned(conversion);
    case L'u':
        return ConvertUnsigned(conversion, 10, false);
    case L'o':
        return ConvertUnsigned(conversion, 8, false);
    case L'x':
        return ConvertUnsigned(conversion, 16, false);
    case L'X':
    case L'p':
        return ConvertUnsigned(conversion, 16, true);
    case L'c':
    case L'C':
        return ConvertCharacter(conversion);
    case L's':
    case L'S':
        return ConvertString(conversion);
    case L'Z':
        return ConvertCounted(conversion);
    case L'n':
    case L'a':
    case L'A':
    case L'e':
    case L'E':
    case L'f':
    case L'F':
    case L'g':
    case L'G':
        BugCheck("format-conversion", "%%%c in \"%s\"", static_cast<char>(conversion.Kind), Narrow(format_).c_str());
    case 0:
        return;
    default:
        // What is no conversion stands for itself; so does the second percent sign.
        text_ += conversion.Kind;
    }
}

ULONGLONG Formatter::NextInteger(const Conversion& conversion, bool isSigned)
{
    if (conversion.ArgumentSize == Size::Bits64 || conversion.Kind == L'p')
    {
        return __builtin_va_arg(*arguments_, ULONGLONG);
    }
    LONG value = __builtin_va_arg(*arguments_, LONG);
    if (conversion.ArgumentSize == Size::Short)
    {
        value = isSigned ? static_cast<SHORT>(value) : static_cast<USHORT>(value);
    }
    return isSigned ? static_cast<ULONGLONG>(static_cast<LONGLONG>(value)) : static_cast<ULONG>(value);
}

void Formatter::ConvertSigned(const Conversion& conversion)
{
    LONGLONG value = static_cast<LONGLONG>(NextInteger(conversion, true));
    WideView prefix = value < 0 ? L"-" : conversion.Plus ? L"+" : conversion.Blank ? L" " : L"";
    ULONGLONG magnitude = value < 0 ? 0 - static_cast<ULONGLONG>(value) : static_cast<ULONGLONG>(value);
    EmitNumber(conversion, prefix, magnitude, 10, false);
}

void Formatter::ConvertUnsigned(const Conversion& conversion, unsigned base, bool upper)
{
    ULONGLONG value = NextInteger(conversion, false);
    Conversion adapted = conversion;
    if (conversion.Kind == L'p')
    {
        adapted.Precision = 2 * sizeof(void*);
    }
    WideView prefix = base == 16 && conversion.Alternate && value != 0 ? (upper ? L"0X" : L"0x") : L"";
    EmitNumber(adapted, prefix, value, base, upper);
}

void Formatter::EmitNumber(
    const Conversion& conversion, WideView prefix, ULONGLONG magnitude, unsigned base, bool upper)
{
    const char* digits = upper ? "0123456789ABCDEF" : "0123456789abcdef";
    WideString body;
    for (; magnitude != 0; magnitude /= base)
    {
        body.insert(body.begin(), static_cast<WCHAR>(digits[magnitude % base]));
    }
    size_t least = conversion.Precision.value_or(1);
    if (body.size() < least)
    {
        body.insert(0, least - body.size(), L'0');
    }
    if (base == 8 && conversion.Alternate && (body.empty() || body[0] != L'0'))
    {
        body.insert(body.begin(), L'0');
    }
    // A precision says how many digits there are, so zeroes no longer fill the width.
    Emit(conversion, prefix, body, conversion.Zero && !conversion.Precision);
}

void Formatter::Emit(const Conversion& conversion, WideView prefix, WideView body, bool zeroes)
{
    size_t used = prefix.size() + body.size();
    size_t padding = conversion.Width > used ? conversion.Width - used : 0;
    bool leading = !conversion.Left;
    text_.append(leading && !zeroes ? padding : 0, L' ');
    text_ += prefix;
    text_.append(leading && zeroes ? padding : 0, L'0');
    text_ += body;
    text_.append(leading ? 0 : padding, L' ');
}

// `defaultKind` is the lower-case letter: the family's own width; the upper-case one means the other width.
bool Formatter::TakesWide(const Conversion& conversion, WCHAR defaultKind) const
{
    switch (conversion.ArgumentSize)
    {
    case Size::Short:
        return false;
    case Size::Long:
    case Size::Wide:
        return true;
    default:
        return (family_ == FormatFamily::Wide) == (conversion.Kind == defaultKind);
    }
}

void Formatter::ConvertCharacter(const Conversion& conversion)
{
    int value = __builtin_va_arg(*arguments_, int);
    char byte = static_cast<char>(value);
    WideString body =
        TakesWide(conversion, L'c') ? WideString(1, static_cast<WCHAR>(value)) : FromNarrow(std::string_view(&byte, 1));
    Emit(conversion, {}, body, conversion.Zero);
}

void Formatter::ConvertString(const Conversion& conversion)
{
    const void* argument = __builtin_va_arg(*arguments_, const void*);
    WideString body;
    if (argument == nullptr)
    {
        WideView text = L"(null)";
        body = text.substr(0, conversion.Precision.value_or(text.size()));
    }
    else if (TakesWide(conversion, L's'))
    {
        const WCHAR* text = static_cast<const WCHAR*>(argument);
        body = WideView(text, BoundedLength(text, conversion.Precision));
    }
    else
    {
        const char* text = static_cast<const char*>(argument);
        body = FromNarrow(std::string_view(text, BoundedLength(text, conversion.Precision)));
    }
    Emit(conversion, {}, body, conversion.Zero);
}

// A counted string brings its own length; a precision has no say in it.
void Formatter::ConvertCounted(const Conversion& conversion)
{
    const void* argument = __builtin_va_arg(*arguments_, const void*);
    WideString body = L"(null)";
    if (conversion.ArgumentSize == Size::Wide || conversion.ArgumentSize == Size::Long)
    {
        const UNICODE_STRING* string = static_cast<const UNICODE_STRING*>(argument);
        if (string != nullptr && string->Buffer != nullptr)
        {
            body = View(*string);
        }
    }
    else
    {
        const NarrowCounted* string = static_cast<const NarrowCounted*>(argument);
        if (string != nullptr && string->Buffer != nullptr)
        {
            body = FromNarrow(std::string_view(string->Buffer, string->Length));
        }
    }
    Emit(conversion, {}, body, conversion.Zero);
}
}

WideString FormatText(FormatFamily family, WideView format, __builtin_ms_va_list* arguments)
{
    return Formatter(family, format, arguments).Run();
}
}

extern "C" int __cdecl KernelVsnwprintf(
    WCHAR* Buffer, size_t Count, const WCHAR* Format, __builtin_ms_va_list Arguments)
{
    if (Format == nullptr || (Buffer == nullptr && Count != 0))
    {
        hosted::BugCheck("null-pointer", "_vsnwprintf without %s", Format == nullptr ? "a format" : "a buffer");
    }
    __builtin_ms_va_list arguments;
    __builtin_ms_va_copy(arguments, Arguments);
    hosted::WideString text = hosted::FormatText(hosted::FormatFamily::Wide, Format, &arguments);
    __builtin_ms_va_end(arguments);
    int length = static_cast<int>(text.size());
    // Without any buffer only the length is wanted.
    if (Buffer == nullptr)
    {
        return length;
    }
    bool fits = text.size() <= Count;
    hosted::WideTraits::copy(Buffer, text.data(), fits ? text.size() : Count);
    if (text.size() < Count)
    {
        Buffer[text.size()] = 0;
    }
    return fits ? length : -1;
}
