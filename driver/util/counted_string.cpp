#include "driver/util/counted_string.h"

namespace
{
constexpr SIZE_T LargestCapacity = 0xfffe;
}

bool CountedString::Allocate(SIZE_T capacity)
{
    Free();
    if (capacity > LargestCapacity)
    {
        return false;
    }
    // An empty string still gets a buffer, so that a buffer tells success.
    SIZE_T bytes = capacity < sizeof(WCHAR) ? sizeof(WCHAR) : capacity;
    string_.Buffer = static_cast<PWSTR>(AllocatePool(bytes));
    if (string_.Buffer == nullptr)
    {
        return false;
    }
    string_.MaximumLength = static_cast<USHORT>(capacity);
    return true;
}

bool CountedString::Copy(const UNICODE_STRING& source, SIZE_T capacity)
{
    if (!Allocate(capacity < source.Length ? source.Length : capacity))
    {
        return false;
    }
    return Append(source);
}

bool CountedString::Append(const UNICODE_STRING& text)
{
    if (text.Length > string_.MaximumLength - string_.Length)
    {
        return false;
    }
    RtlCopyMemory(reinterpret_cast<PUCHAR>(string_.Buffer) + string_.Length, text.Buffer, text.Length);
    string_.Length = static_cast<USHORT>(string_.Length + text.Length);
    return true;
}

bool CountedString::Append(PCWSTR text)
{
    return Append(CountedView(text));
}

void CountedString::Free()
{
    FreePool(string_.Buffer);
    string_ = {};
}

UNICODE_STRING CountedString::Detach()
{
    UNICODE_STRING string = string_;
    string_ = {};
    return string;
}

void FreeString(PUNICODE_STRING string)
{
    FreePool(string->Buffer);
    *string = {};
}

UNICODE_STRING SubString(const UNICODE_STRING& string, USHORT offset, USHORT length)
{
    UNICODE_STRING part;
    part.Length = length;
    part.MaximumLength = length;
    part.Buffer = string.Buffer + offset / sizeof(WCHAR);
    return part;
}

bool Contains(const UNICODE_STRING& string, WCHAR character)
{
    USHORT count = CharacterCount(string);
    for (USHORT i = 0; i < count; ++i)
    {
        if (string.Buffer[i] == character)
        {
            return true;
        }
    }
    return false;
}

UNICODE_STRING CountedView(PCWSTR text)
{
    UNICODE_STRING view;
    RtlInitUnicodeString(&view, text);
    return view;
}
