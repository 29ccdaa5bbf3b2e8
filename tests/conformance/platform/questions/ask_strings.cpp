// Upper case, hashes, counted strings.
#include "tests/conformance/platform/questions/questions.h"

namespace questions
{
namespace
{
constexpr ULONG Units = 0x10000;
constexpr ULONG Tag = 'rtSq';

void AskOneHash(Answers& answers, const char* label, const UNICODE_STRING& string)
{
    for (ULONG algorithm : {0u, 1u, 2u, 0xFFFFFFFFu})
    {
        for (bool insensitive : {false, true})
        {
            ULONG hash = 0xA5A5A5A5;
            const NTSTATUS status = RtlHashUnicodeString(&string, insensitive, algorithm, &hash);
            answers.Line("RtlHashUnicodeString ", label, " algorithm ", Hex{algorithm}, " insensitive ", insensitive,
                ": ", Status{status}, " ", Hex{hash});
        }
    }
}

void AskInit(Answers& answers, ULONG length, WCHAR* text)
{
    for (ULONG index = 0; index < length; ++index)
    {
        text[index] = L'x';
    }
    text[length] = 0;
    UNICODE_STRING string;
    RtlInitUnicodeString(&string, text);
    answers.Line("RtlInitUnicodeString ", length, " characters: ", string.Length, " of ", string.MaximumLength,
        " same buffer ", string.Buffer == text);
}
}

void AskUpcase(Answers& answers)
{
    for (ULONG unit = 0; unit < Units; ++unit)
    {
        const WCHAR upper = RtlUpcaseUnicodeChar(static_cast<WCHAR>(unit));
        answers.Line("RtlUpcaseUnicodeChar ", Hex{unit}, ": ", Hex{static_cast<USHORT>(upper)});
    }
    for (ULONG unit = 0; unit < Units; ++unit)
    {
        answers.Line(
            "towupper ", Hex{unit}, ": ", Hex{static_cast<USHORT>(towupper(static_cast<unsigned short>(unit)))});
    }
}

void AskHash(Answers& answers)
{
    AskOneHash(answers, "of nothing", Name(L""));
    AskOneHash(answers, "of one letter", Name(L"a"));
    AskOneHash(answers, "of a path", Name(L"\\Device\\HarddiskVolume1\\Folder\\File name.txt"));
    AskOneHash(answers, "of a zero inside", Name(L"a\0b"));
    AskOneHash(answers, "of accents", Name(L"\x00E9\x00DF\x0101\x0153\xFF41"));
    AskOneHash(answers, "of an odd length",
        []
        {
            Name name(L"abc");
            name.Length -= 1;
            return name;
        }());
    AskOneHash(answers, "without a buffer", UNICODE_STRING{});
    for (ULONG unit = 0; unit < 0x180; ++unit)
    {
        const WCHAR text[] = {static_cast<WCHAR>(unit), 0};
        const Name name(text, 1);
        ULONG hash = 0;
        RtlHashUnicodeString(&name, TRUE, HASH_STRING_ALGORITHM_X65599, &hash);
        answers.Line("RtlHashUnicodeString of unit ", Hex{unit}, " insensitive: ", Hex{hash});
    }
    const Name name(L"name");
    ULONG hash = 0;
    answers.Line("RtlHashUnicodeString without a string: ", Status{RtlHashUnicodeString(nullptr, FALSE, 1, &hash)});
    answers.Line("RtlHashUnicodeString without a result: ", Status{RtlHashUnicodeString(&name, FALSE, 1, nullptr)});
}

void AskCountedStrings(Answers& answers)
{
    UNICODE_STRING string;
    Fill(&string, sizeof(string));
    RtlInitUnicodeString(&string, nullptr);
    answers.Line(
        "RtlInitUnicodeString of nothing: ", string.Length, " of ", string.MaximumLength, " ", Address{string.Buffer});
    constexpr ULONG Most = 70000;
    auto* text = static_cast<WCHAR*>(ExAllocatePoolWithTag(PagedPool, (Most + 1) * sizeof(WCHAR), Tag));
    if (text == nullptr)
    {
        return;
    }
    for (ULONG length : {0u, 1u, 2u, 100u, 32765u, 32766u, 32767u, 32768u, 32769u, 65535u, 65536u, 70000u})
    {
        AskInit(answers, length, text);
    }
    ExFreePoolWithTag(text, Tag);
}
}
