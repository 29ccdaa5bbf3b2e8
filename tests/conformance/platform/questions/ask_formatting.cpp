// The formatter below RtlStringCbPrintfExW, and that routine itself.
#include "tests/conformance/platform/questions/questions.h"

#include <ntstrsafe.h>

namespace questions
{
namespace
{
constexpr SIZE_T Room = 64; // characters

int __cdecl Format(WCHAR* buffer, SIZE_T count, const WCHAR* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    const int result = _vsnwprintf(buffer, count, format, arguments);
    va_end(arguments);
    return result;
}

// Every capacity up to two more than the text needs.
template <class... Arguments>
void Ask(Answers& answers, const char* label, SIZE_T characters, const WCHAR* format, Arguments... arguments)
{
    WCHAR buffer[Room];
    for (SIZE_T count = 0; count <= characters + 2; ++count)
    {
        Fill(buffer, sizeof(buffer));
        const int result = Format(buffer, count, format, arguments...);
        answers.Line("_vsnwprintf ", label, " into ", count, ": ", result, " ", Written{buffer, sizeof(buffer)});
    }
}

// Where only the text is of interest.
template <class... Arguments>
void AskText(Answers& answers, const char* label, const WCHAR* format, Arguments... arguments)
{
    WCHAR buffer[Room];
    Fill(buffer, sizeof(buffer));
    const int result = Format(buffer, Room, format, arguments...);
    const bool fits = result >= 0 && result < static_cast<int>(Room);
    answers.Line("_vsnwprintf ", label, ": ", result, " ", Text{buffer, fits ? static_cast<SIZE_T>(result) : 0},
        " then ", Hex{static_cast<USHORT>(buffer[fits ? result : 0])});
}

void AskNumbers(Answers& answers)
{
    AskText(answers, "%d", L"<%d>", 42);
    AskText(answers, "%d negative", L"<%d>", -42);
    AskText(answers, "%d least", L"<%d>", static_cast<int>(0x80000000));
    AskText(answers, "%i", L"<%i>", 42);
    AskText(answers, "%u", L"<%u>", 0xFFFFFFFFu);
    AskText(answers, "%o", L"<%o>", 0777u);
    AskText(answers, "%#o", L"<%#o>", 0777u);
    AskText(answers, "%x", L"<%x>", 0xC0000034u);
    AskText(answers, "%x zero", L"<%x>", 0u);
    AskText(answers, "%X", L"<%X>", 0xC0000034u);
    AskText(answers, "%#x", L"<%#x>", 0xABu);
    AskText(answers, "%#x zero", L"<%#x>", 0u);
    AskText(answers, "%#X", L"<%#X>", 0xABu);
    AskText(answers, "%02x", L"<%02x>", 0xAu);
    AskText(answers, "%02d", L"<%02d>", 7);
    AskText(answers, "%02d wider", L"<%02d>", 1234);
    AskText(answers, "%04X", L"<%04X>", 0xABu);
    AskText(answers, "%08x", L"<%08x>", 0xABu);
    AskText(answers, "%08XL", L"<0x%08XL>", 0xC0000001u);
    AskText(answers, "%#08x", L"<%#08x>", 0xABu);
    AskText(answers, "%5d", L"<%5d>", 42);
    AskText(answers, "%-5d", L"<%-5d>", 42);
    AskText(answers, "%05d negative", L"<%05d>", -42);
    AskText(answers, "%-05d", L"<%-05d>", 42);
    AskText(answers, "%+d", L"<%+d>", 42);
    AskText(answers, "% d", L"<% d>", 42);
    AskText(answers, "%+ d", L"<%+ d>", 42);
    AskText(answers, "%.3d", L"<%.3d>", 7);
    AskText(answers, "%8.3d", L"<%8.3d>", 7);
    AskText(answers, "%08.3d", L"<%08.3d>", 7);
    AskText(answers, "%.0d of zero", L"<%.0d>", 0);
    AskText(answers, "%*d", L"<%*d>", 6, 42);
    AskText(answers, "%*d negative", L"<%*d>", -6, 42);
    AskText(answers, "%.*d", L"<%.*d>", 4, 42);
    AskText(answers, "%hd", L"<%hd>", 0x12345);
    AskText(answers, "%hu", L"<%hu>", 0x1FFFF);
    AskText(answers, "%hx", L"<%hx>", 0x12345);
    AskText(answers, "%ld", L"<%ld>", -1);
    AskText(answers, "%lu", L"<%lu>", 0xFFFFFFFFu);
    AskText(answers, "%lx", L"<%lx>", 0xABu);
}

void AskLongNumbers(Answers& answers)
{
    AskText(answers, "%I64d", L"<%I64d>", -1234567890123456789LL);
    AskText(answers, "%I64u", L"<%I64u>", 0xFFFFFFFFFFFFFFFFULL);
    AskText(answers, "%I64x", L"<%I64x>", 0x123456789ABCDEFULL);
    AskText(answers, "%I64X", L"<%I64X>", 0x123456789ABCDEFULL);
    AskText(answers, "%016I64x", L"<%016I64x>", 0xABCULL);
    AskText(answers, "%I32x", L"<%I32x>", 0xABu);
    AskText(answers, "%Ix", L"<%Ix>", 0x123456789ULL);
    AskText(answers, "%Iu", L"<%Iu>", 0x123456789ULL);
    AskText(answers, "%lld", L"<%lld>", -5LL);
    AskText(answers, "%llx", L"<%llx>", 0x123456789ULL);
    AskText(answers, "%p", L"<%p>", reinterpret_cast<void*>(0xFFFFF880012345A0ULL));
    AskText(answers, "%p null", L"<%p>", static_cast<void*>(nullptr));
    AskText(answers, "%20p", L"<%20p>", reinterpret_cast<void*>(0xABCULL));
    AskText(answers, "%-20p", L"<%-20p>", reinterpret_cast<void*>(0xABCULL));
}

void AskCharactersAndStrings(Answers& answers)
{
    const WCHAR* wide = L"wide";
    const char* narrow = "narrow";
    const WCHAR* none = nullptr;
    AskText(answers, "%c", L"<%c>", L'w');
    AskText(answers, "%c beyond ASCII", L"<%c>", 0x20AC);
    AskText(answers, "%5c", L"<%5c>", L'w');
    AskText(answers, "%C", L"<%C>", 'n');
    AskText(answers, "%hc", L"<%hc>", 'n');
    AskText(answers, "%lc", L"<%lc>", L'w');
    AskText(answers, "%s", L"<%s>", wide);
    AskText(answers, "%S", L"<%S>", narrow);
    AskText(answers, "%hs", L"<%hs>", narrow);
    AskText(answers, "%hS", L"<%hS>", narrow);
    AskText(answers, "%ls", L"<%ls>", wide);
    AskText(answers, "%lS", L"<%lS>", wide);
    AskText(answers, "%ws", L"<%ws>", wide);
    AskText(answers, "%s empty", L"<%s>", L"");
    AskText(answers, "%s null", L"<%s>", none);
    AskText(answers, "%S null", L"<%S>", none);
    AskText(answers, "%ws null", L"<%ws>", none);
    AskText(answers, "%.2s null", L"<%.2s>", none);
    AskText(answers, "%.2s", L"<%.2s>", wide);
    AskText(answers, "%.0s", L"<%.0s>", wide);
    AskText(answers, "%.*s", L"<%.*s>", 3, wide);
    AskText(answers, "%8s", L"<%8s>", wide);
    AskText(answers, "%-8s", L"<%-8s>", wide);
    AskText(answers, "%08s", L"<%08s>", wide);
    AskText(answers, "%8.2s", L"<%8.2s>", wide);
    AskText(answers, "%2s", L"<%2s>", wide);
    AskText(answers, "%.3S", L"<%.3S>", narrow);
    AskText(answers, "%s beyond ASCII", L"<%s>", L"\x00E9\x20AC\xD83D\xDE00");
}

void AskCounted(Answers& answers)
{
    Name name(L"counted");
    name.Length = 5 * sizeof(WCHAR); // what lies behind is no part of it
    UNICODE_STRING empty = {};
    struct
    {
        USHORT Length;
        USHORT MaximumLength;
        const char* Buffer;
    } narrow = {3, 4, "abcd"};
    AskText(answers, "%wZ", L"<%wZ>", static_cast<PUNICODE_STRING>(&name));
    AskText(answers, "%lZ", L"<%lZ>", static_cast<PUNICODE_STRING>(&name));
    AskText(answers, "%wZ null", L"<%wZ>", static_cast<PUNICODE_STRING>(nullptr));
    AskText(answers, "%wZ without a buffer", L"<%wZ>", &empty);
    AskText(answers, "%8wZ", L"<%8wZ>", static_cast<PUNICODE_STRING>(&name));
    AskText(answers, "%hZ", L"<%hZ>", static_cast<void*>(&narrow));
}

void AskOddFormats(Answers& answers)
{
    AskText(answers, "empty format", L"");
    AskText(answers, "plain text", L"plain");
    AskText(answers, "%%", L"100%%");
    AskText(answers, "% at the end", L"100%");
    AskText(answers, "unknown conversion", L"<%y>");
    AskText(answers, "two in order", L"%d %s", 1, L"x");
    AskText(
        answers, "what the driver writes", L"[%04d-%02d-%02d %02d:%02d:%02d.%03d] %s", 2020, 1, 2, 3, 4, 5, 6, L"text");
}

void AskTruncation(Answers& answers)
{
    Ask(answers, "plain", 5, L"plain");
    Ask(answers, "empty", 0, L"");
    Ask(answers, "%d", 4, L"%d", 1234);
    Ask(answers, "%8x", 8, L"%8x", 0xABu);
    Ask(answers, "%-8x", 8, L"%-8x", 0xABu);
    Ask(answers, "%s", 5, L"%s", L"words");
    Ask(answers, "%S", 5, L"%S", "words");
    Ask(answers, "%s between", 7, L"<%s>", L"words");
    Ask(answers, "%s empty", 0, L"%s", L"");
    Ask(answers, "%I64x", 16, L"%I64x", 0xFEDCBA9876543210ULL);
    answers.Line("_vsnwprintf length only: ", Format(nullptr, 0, L"%s %d", L"words", 42));
}

void AskSafe(Answers& answers)
{
    WCHAR buffer[Room];
    for (int flags : {0, STRSAFE_NO_TRUNCATION, STRSAFE_NULL_ON_FAILURE})
    {
        for (size_t bytes = 0; bytes <= 14; ++bytes)
        {
            Fill(buffer, sizeof(buffer));
            WCHAR* end = nullptr;
            size_t remaining = 77;
            const NTSTATUS status =
                RtlStringCbPrintfExW(buffer, bytes, &end, &remaining, static_cast<ULONG>(flags), L"%s%d", L"abc", 42);
            answers.Line("RtlStringCbPrintfExW into ", bytes, " flags ", Hex{static_cast<ULONG>(flags)}, ": ",
                Status{status}, " at ", end != nullptr ? static_cast<LONGLONG>(end - buffer) : -1, " left ", remaining,
                " ", Written{buffer, sizeof(buffer)});
        }
    }
}
}

void AskFormatting(Answers& answers)
{
    AskNumbers(answers);
    AskLongNumbers(answers);
    AskCharactersAndStrings(answers);
    AskCounted(answers);
    AskOddFormats(answers);
    AskTruncation(answers);
    AskSafe(answers);
}

// The texts themselves are the answers.
void AskDebugPrint()
{
    Name name(L"counted");
    DbgPrint("DbgPrint plain: plain\n");
    DbgPrint("DbgPrint without a line end: plain");
    DbgPrint("DbgPrint %%d: %d\n", -42);
    DbgPrint("DbgPrint %%x: %x %08x %08X\n", 0xC0000034u, 0xABu, 0xABu);
    DbgPrint("DbgPrint %%s: %s\n", "narrow");
    DbgPrint("DbgPrint %%ws: %ws\n", L"wide");
    DbgPrint("DbgPrint %%S: %S\n", L"wide");
    DbgPrint("DbgPrint %%p: %p\n", reinterpret_cast<void*>(0xFFFFF880012345A0ULL));
    DbgPrint("DbgPrint %%I64x: %I64x\n", 0x123456789ABCDEFULL);
    DbgPrint("DbgPrint %%wZ: %wZ\n", static_cast<PUNICODE_STRING>(&name));
}
}
