#include "hosted/rtl/wide_string.h"

#include <gtest/gtest.h>

#include <map>

namespace hosted
{
namespace
{
WideString Units(std::initializer_list<unsigned> units)
{
    WideString text;
    for (unsigned unit : units)
    {
        text += static_cast<WCHAR>(unit);
    }
    return text;
}

TEST(WideString, NarrowsToUtf8)
{
    EXPECT_EQ("plan.txt", Narrow(L"plan.txt"));
    EXPECT_EQ("\xC3\xA9\xE2\x82\xAC", Narrow(Units({0xE9, 0x20AC})));
    EXPECT_EQ("\xF0\x9F\x98\x80", Narrow(Units({0xD83D, 0xDE00})));
    EXPECT_EQ(std::string("a\0b", 3), Narrow(Units({'a', 0, 'b'})));
    EXPECT_EQ("", Narrow({}));
}

TEST(WideString, WidensFromUtf8)
{
    EXPECT_EQ(Units({'a', 0xE9, 0x20AC, 0xD83D, 0xDE00}), Widen("a\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80"));
    EXPECT_EQ(WideString(), Widen(""));
}

TEST(WideString, EveryUnitSurvivesTheRoundTrip)
{
    WideString all;
    for (unsigned unit = 0xFFFF; unit > 0; --unit)
    {
        all += static_cast<WCHAR>(unit);
    }
    // Falling order, so that no high surrogate stands before a low one except where wanted.
    EXPECT_EQ(all, Widen(Narrow(all)));
    WideString pair = Units({0xDBFF, 0xDFFF, 0xD800});
    EXPECT_EQ(pair, Widen(Narrow(pair)));
}

TEST(WideString, WrongUtf8BecomesReplacements)
{
    WideString one = Units({0xFFFD});
    EXPECT_EQ(one + L"a", Widen("\x80"
                                "a"));
    EXPECT_EQ(one + L"a", Widen("\xFF"
                                "a"));
    EXPECT_EQ(one + L"a", Widen("\xC3"
                                "a"));
    EXPECT_EQ(one, Widen("\xE2"));
    EXPECT_EQ(one + one, Widen("\xC0\x80")) << "overlong";
    EXPECT_EQ(one + one + one, Widen("\xE0\x80\x80")) << "overlong";
    EXPECT_EQ(Units({0xFFFD, 0xFFFD, 0xFFFD, 0xFFFD}), Widen("\xF4\x90\x80\x80")) << "past the last plane";
}

TEST(WideString, ViewsCountedStrings)
{
    WCHAR buffer[] = L"abcdef";
    UNICODE_STRING string = {6, 14, buffer};
    EXPECT_EQ("abc", Narrow(View(string)));
    string.Length = 7;
    EXPECT_EQ("abc", Narrow(View(string)));
    EXPECT_TRUE(View(UNICODE_STRING{}).empty());
    WideString text = L"four";
    UNICODE_STRING counted = Counted(text);
    EXPECT_EQ(8, counted.Length);
    EXPECT_EQ(8, counted.MaximumLength);
    EXPECT_EQ(text.data(), counted.Buffer);
}

TEST(WideString, ComparesWithoutCase)
{
    EXPECT_EQ("\\DEVICE\\\xC3\x89", Narrow(Upcase(L"\\device\\\u00e9")));
    EXPECT_TRUE(EqualNoCase(L"C:\\Agent", L"c:\\AGENT"));
    EXPECT_FALSE(EqualNoCase(L"a", L"ab"));
    EXPECT_FALSE(EqualNoCase(L"a", L"b"));
    LessNoCase less;
    EXPECT_TRUE(less(L"a", L"B"));
    EXPECT_FALSE(less(L"B", L"a"));
    EXPECT_FALSE(less(L"a", L"A"));
    EXPECT_TRUE(less(L"a", L"AB"));
    EXPECT_FALSE(less(L"ab", L"A"));
    std::map<WideString, int, LessNoCase> map = {{L"Key", 1}};
    EXPECT_TRUE(map.contains(WideView(L"kEY")));
}

TEST(WideString, IsAtOrBelowEndsAtComponents)
{
    EXPECT_TRUE(IsAtOrBelow(L"\\Device\\Disk", L"\\device\\DISK"));
    EXPECT_TRUE(IsAtOrBelow(L"\\Device\\Disk\\File", L"\\Device\\Disk"));
    EXPECT_TRUE(IsAtOrBelow(L"\\Device\\Disk\\", L"\\Device\\Disk"));
    EXPECT_FALSE(IsAtOrBelow(L"\\Device\\Disks", L"\\Device\\Disk"));
    EXPECT_FALSE(IsAtOrBelow(L"\\Device", L"\\Device\\Disk"));
    EXPECT_FALSE(IsAtOrBelow(L"", L"\\Device"));
}

TEST(WideTraits, Operations)
{
    WCHAR text[6] = {L'a', L'b', L'c', 0, 0, 0};
    EXPECT_EQ(3u, WideTraits::length(text));
    EXPECT_LT(WideTraits::compare(text, L"abd", 3), 0);
    EXPECT_GT(WideTraits::compare(text, L"aab", 3), 0);
    EXPECT_EQ(0, WideTraits::compare(text, L"abd", 2));
    EXPECT_EQ(text + 1, WideTraits::find(text, 3, L'b'));
    EXPECT_EQ(nullptr, WideTraits::find(text, 3, L'z'));
    WideTraits::move(text + 1, text, 4);
    EXPECT_EQ("aabc", Narrow(text));
    EXPECT_NE(WideTraits::eof(), WideTraits::not_eof(WideTraits::eof()));
    EXPECT_EQ(5u, WideTraits::not_eof(5));
}
}
}
