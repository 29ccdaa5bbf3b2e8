#include "hosted/ke/irql.h"
#include "hosted/rtl/debug_print.h"
#include "hosted/rtl/wide_string.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <thread>

namespace hosted
{
namespace
{
int __cdecl Print(WCHAR* buffer, size_t count, const WCHAR* format, ...)
{
    __builtin_ms_va_list arguments;
    __builtin_ms_va_start(arguments, format);
    int result = KernelVsnwprintf(buffer, count, format, arguments);
    __builtin_ms_va_end(arguments);
    return result;
}

// The whole text, checked to be terminated and as long as it was said to be.
template <class... Arguments>
std::string Wide(const WCHAR* format, Arguments... arguments)
{
    WCHAR buffer[1024];
    std::fill(buffer, buffer + 1024, WCHAR{0xA5A5});
    int length = Print(buffer, 1024, format, arguments...);
    EXPECT_EQ(static_cast<size_t>(length), WideTraits::length(buffer));
    return Narrow(buffer);
}

struct AnsiString
{
    USHORT Length;
    USHORT MaximumLength;
    const char* Buffer;
};

TEST(WideFormat, PlainText)
{
    EXPECT_EQ("", Wide(L""));
    EXPECT_EQ("100% sure", Wide(L"100%% sure"));
    EXPECT_EQ("kept: k", Wide(L"kept: %k"));
    EXPECT_EQ("end", Wide(L"end%"));
    EXPECT_EQ("end", Wide(L"end%-5"));
}

TEST(WideFormat, Decimal)
{
    EXPECT_EQ("0 -1 42", Wide(L"%d %i %d", 0, -1, 42));
    EXPECT_EQ("-2147483648 4294967295", Wide(L"%d %u", INT32_MIN, 0xFFFFFFFFu));
    EXPECT_EQ("-1 65535", Wide(L"%hd %hu", 0x1FFFF, 0x1FFFF));
    EXPECT_EQ("-1 4294967295", Wide(L"%ld %lu", -1, -1));
    EXPECT_EQ("-9223372036854775808", Wide(L"%lld", INT64_MIN));
    EXPECT_EQ("-5 18446744073709551615", Wide(L"%I64d %I64u", -5ll, ~0ull));
    EXPECT_EQ("-7 8589934592", Wide(L"%I32d %Iu", -7, 1ull << 33));
    EXPECT_EQ("7", Wide(L"%wd", 7));
}

TEST(WideFormat, HexadecimalAndOctal)
{
    EXPECT_EQ("c0000022 C0000022", Wide(L"%x %X", 0xC0000022, 0xC0000022));
    EXPECT_EQ("0x0000001f 0x1F 0X1F", Wide(L"0x%08x 0x%X %#X", 0x1F, 0x1F, 0x1F));
    EXPECT_EQ("0x1f 0", Wide(L"%#x %#x", 0x1F, 0));
    EXPECT_EQ("17 017 0", Wide(L"%o %#o %#o", 15, 15, 0));
    EXPECT_EQ("ffff", Wide(L"%hx", -1));
    EXPECT_EQ("123456789abcdef0", Wide(L"%llx", 0x123456789ABCDEF0ull));
}

TEST(WideFormat, Pointers)
{
    EXPECT_EQ("00000000DEADBEEF", Wide(L"%p", reinterpret_cast<void*>(0xDEADBEEF)));
    EXPECT_EQ("0x0000000000000000", Wide(L"0x%p", nullptr));
    EXPECT_EQ("FFFFFFFF80000004", Wide(L"%p", reinterpret_cast<void*>(0xFFFFFFFF80000004)));
    EXPECT_EQ("[  0000000000000001]", Wide(L"[%18p]", reinterpret_cast<void*>(1)));
}

TEST(WideFormat, FlagsAndWidth)
{
    EXPECT_EQ("[   42][42   ][00042]", Wide(L"[%5d][%-5d][%05d]", 42, 42, 42));
    EXPECT_EQ("[+42][ 42][-42]", Wide(L"[%+d][% d][%+d]", 42, 42, -42));
    EXPECT_EQ("[-0042][42   ]", Wide(L"[%05d][%-05d]", -42, 42));
    EXPECT_EQ("[0x002a]", Wide(L"[%#06x]", 42));
    EXPECT_EQ("[   42][42   ]", Wide(L"[%*d][%*d]", 5, 42, -5, 42));
    EXPECT_EQ("[12345]", Wide(L"[%3d]", 12345));
    EXPECT_EQ("[+42]", Wide(L"[% +d]", 42));
}

TEST(WideFormat, NumberPrecision)
{
    EXPECT_EQ("[00042][  042][042  ]", Wide(L"[%.5d][%5.3d][%-5.3d]", 42, 42, 42));
    EXPECT_EQ("[  042]", Wide(L"[%05.3d]", 42)) << "a precision switches zeroes off";
    EXPECT_EQ("[][1]", Wide(L"[%.0d][%.0d]", 0, 1));
    EXPECT_EQ("[042][42]", Wide(L"[%.*d][%.*d]", 3, 42, -3, 42));
}

TEST(WideFormat, Strings)
{
    EXPECT_EQ("wide", Wide(L"%s", L"wide"));
    EXPECT_EQ("narrow narrow", Wide(L"%S %hs", "narrow", "narrow"));
    EXPECT_EQ("wide wide wide", Wide(L"%ls %ws %lS", L"wide", L"wide", L"wide"));
    EXPECT_EQ("narrow", Wide(L"%hS", "narrow"));
    EXPECT_EQ("[  abc][abc  ][00abc]", Wide(L"[%5s][%-5s][%05s]", L"abc", L"abc", L"abc"));
    EXPECT_EQ("[ab][   ab]", Wide(L"[%.2s][%5.*s]", L"abc", 2, L"abc"));
    EXPECT_EQ("\xC3\xA9", Wide(L"%S", "\xE9")) << "bytes are widened one by one";
    const WCHAR unterminated[2] = {L'a', L'b'};
    EXPECT_EQ("ab", Wide(L"%.2s", unterminated));
}

TEST(WideFormat, NullStrings)
{
    EXPECT_EQ("(null) (null)", Wide(L"%s %S", nullptr, nullptr));
    EXPECT_EQ("(nul", Wide(L"%.4s", nullptr));
    UNICODE_STRING empty = {8, 8, nullptr};
    AnsiString ansi = {3, 3, nullptr};
    EXPECT_EQ("(null) (null)", Wide(L"%wZ %wZ", nullptr, &empty));
    EXPECT_EQ("(null) (null)", Wide(L"%Z %Z", nullptr, &ansi));
}

TEST(WideFormat, CountedStrings)
{
    WCHAR buffer[] = L"abcdef";
    UNICODE_STRING wide = {6, 12, buffer};
    AnsiString narrow = {2, 8, "narrow"};
    EXPECT_EQ("abc na na", Wide(L"%wZ %Z %hZ", &wide, &narrow, &narrow));
    EXPECT_EQ("abc", Wide(L"%lZ", &wide));
    EXPECT_EQ("[  abc][abc  ]", Wide(L"[%5wZ][%-5wZ]", &wide, &wide));
    EXPECT_EQ("abc", Wide(L"%.1wZ", &wide)) << "the counted length holds";
    wide.Length = 0;
    EXPECT_EQ("[]", Wide(L"[%wZ]", &wide));
}

TEST(WideFormat, Characters)
{
    EXPECT_EQ("w n n", Wide(L"%c %C %hc", L'w', 'n', 'n'));
    EXPECT_EQ("\xE2\x82\xAC \xE2\x82\xAC", Wide(L"%lc %wc", 0x20AC, 0x20AC));
    EXPECT_EQ("[  x][x  ]", Wide(L"[%3c][%-3c]", L'x', L'x'));
}

TEST(WideFormat, Truncation)
{
    WCHAR buffer[6];
    auto fill = [&] { std::fill(buffer, buffer + 6, L'#'); };
    fill();
    EXPECT_EQ(4, Print(buffer, 5, L"%s", L"abcd"));
    EXPECT_EQ(0, buffer[4]);
    EXPECT_EQ(L'#', buffer[5]);
    fill();
    EXPECT_EQ(5, Print(buffer, 5, L"%s", L"abcde"));
    EXPECT_EQ("abcde#", Narrow({buffer, 6})) << "no room, no terminator";
    fill();
    EXPECT_EQ(-1, Print(buffer, 5, L"%s", L"abcdef"));
    EXPECT_EQ("abcde#", Narrow({buffer, 6}));
    fill();
    EXPECT_EQ(-1, Print(buffer, 0, L"x"));
    EXPECT_EQ(0, Print(buffer, 0, L""));
    EXPECT_EQ(L'#', buffer[0]);
    EXPECT_EQ(7, Print(nullptr, 0, L"%s", L"abcdefg")) << "only the length is wanted";
}

TEST(WideFormatDeath, Rules)
{
    WCHAR buffer[4];
    int written;
    EXPECT_DEATH(Print(buffer, 4, L"%n", &written), "format-conversion: %n");
    EXPECT_DEATH(Print(buffer, 4, L"%f", 1.0), "format-conversion: %f");
    EXPECT_DEATH(Print(nullptr, 4, L"x"), "null-pointer: _vsnwprintf without a buffer");
    EXPECT_DEATH(Print(buffer, 4, nullptr), "null-pointer: _vsnwprintf without a format");
}

class Debugger : public testing::Test
{
protected:
    void SetUp() override { ClearDebugPrints(); }
    void TearDown() override
    {
        ClearDebugPrints();
        EchoDebugPrints(nullptr);
        LimitDebugPrints(0);
    }

    static std::string Last()
    {
        std::vector<std::string> texts = DebugPrints();
        return texts.empty() ? "none" : texts.back();
    }
};

TEST_F(Debugger, KeepsEachCallInOrder)
{
    EXPECT_EQ(0u, DbgPrint("Tarnveil.sys: "));
    DbgPrint("first\nsecond\n");
    DbgPrint("%s %d\n", "narrow", 5);
    EXPECT_EQ((std::vector<std::string>{"Tarnveil.sys: ", "first\nsecond\n", "narrow 5\n"}), DebugPrints());
    ClearDebugPrints();
    EXPECT_TRUE(DebugPrints().empty());
}

TEST_F(Debugger, WideArgumentsBecomeUtf8)
{
    WCHAR buffer[] = L"C:\\\u20ac";
    UNICODE_STRING string = {8, 10, buffer};
    DbgPrint("%wZ|%ws|%S|%ls|%C|%wc", &string, L"\u00e9", L"w", L"l", 0x20AC, 0xE9);
    EXPECT_EQ("C:\\\xE2\x82\xAC|\xC3\xA9|w|l|\xE2\x82\xAC|\xC3\xA9", Last());
    DbgPrint("%s|%hs|%c|%hc", "\xC3\xA9", "h", 'c', 'd');
    EXPECT_EQ("\xC3\xA9|h|c|d", Last());
    DbgPrint("%wZ %s 0x%08x 0x%08XL %p", nullptr, nullptr, 0xC0000001, 0xC000009A, nullptr);
    EXPECT_EQ("(null) (null) 0xc0000001 0xC000009AL 0000000000000000", Last());
}

TEST_F(Debugger, CutsAt512Bytes)
{
    std::string text(513, 'x');
    DbgPrint("%s", text.c_str());
    EXPECT_EQ(std::string(512, 'x'), Last());
    text.resize(512);
    DbgPrint("%s", text.c_str());
    EXPECT_EQ(text, Last());
    text = std::string(511, 'x') + "\xC3\xA9";
    DbgPrint("%s", text.c_str());
    EXPECT_EQ(std::string(511, 'x'), Last()) << "no half character";
}

TEST_F(Debugger, WorksAtAnyLevel)
{
    RaisedIrql high(HIGH_LEVEL);
    DbgPrint("Format      : %ws\n", L"x");
    EXPECT_EQ("Format      : x\n", Last());
}

TEST_F(Debugger, Echoes)
{
    FILE* file = tmpfile();
    ASSERT_NE(nullptr, file);
    EchoDebugPrints(file);
    DbgPrint("echoed %d\n", 1);
    EchoDebugPrints(nullptr);
    DbgPrint("silent\n");
    rewind(file);
    char text[64] = "";
    size_t length = fread(text, 1, sizeof(text), file);
    fclose(file);
    EXPECT_EQ("echoed 1\n", std::string(text, length));
}

TEST_F(Debugger, KeepsOnlyTheNewestWhenLimited)
{
    LimitDebugPrints(2);
    DbgPrint("1");
    DbgPrint("2");
    DbgPrint("3");
    EXPECT_EQ((std::vector<std::string>{"2", "3"}), DebugPrints());
}

TEST_F(Debugger, TextsOfSeveralThreadsStayWhole)
{
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i)
    {
        threads.emplace_back(
            [i]
            {
                for (int j = 0; j < 100; ++j)
                {
                    DbgPrint("%d%d%d%d", i, i, i, i);
                }
            });
    }
    for (std::thread& thread : threads)
    {
        thread.join();
    }
    std::vector<std::string> texts = DebugPrints();
    EXPECT_EQ(400u, texts.size());
    for (const std::string& text : texts)
    {
        EXPECT_EQ(std::string(4, text[0]), text);
    }
}

TEST_F(Debugger, RulesDeath)
{
    EXPECT_DEATH(DbgPrint(nullptr), "null-pointer: DbgPrint");
    int written;
    EXPECT_DEATH(DbgPrint("%n", &written), "format-conversion");
}
}
}
