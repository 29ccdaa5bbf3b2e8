// The wildcard search against the plain recursion that defines it.

#include "driver/util/name_matching.h"
#include "hosted/rtl/wide_string.h"

#include <gtest/gtest.h>

#include <random>
#include <vector>

namespace
{
using namespace hosted;

bool PlainMatch(const WCHAR* text, const WCHAR* pattern)
{
    for (; *pattern != 0; ++text, ++pattern)
    {
        if (*pattern == L'*')
        {
            while (*text != 0)
            {
                if (PlainMatch(text, pattern + 1))
                {
                    return true;
                }
                ++text;
            }
            return pattern[1] == 0;
        }
        if (*text == 0)
        {
            return false;
        }
        if (*pattern != L'?' && RtlUpcaseUnicodeChar(*text) != RtlUpcaseUnicodeChar(*pattern))
        {
            return false;
        }
    }
    return *text == 0;
}

std::vector<WideString> AllTexts(size_t longest)
{
    std::vector<WideString> texts = {WideString()};
    for (size_t i = 0; i < texts.size(); ++i)
    {
        if (texts[i].size() == longest)
        {
            continue;
        }
        for (WCHAR character : {L'a', L'b', L'*', L'?'})
        {
            texts.push_back(texts[i] + character);
        }
    }
    return texts;
}

WideString RandomText(std::mt19937& random, size_t longest, WideView alphabet)
{
    WideString text(random() % (longest + 1), 0);
    for (WCHAR& character : text)
    {
        character = alphabet[random() % alphabet.size()];
    }
    return text;
}

TEST(WildcardMatch, AgreesWithPlainRecursionOnEveryShortTextAndPattern)
{
    const std::vector<WideString> texts = AllTexts(6);
    ASSERT_EQ(texts.size(), 5461u);
    size_t matches = 0;
    for (const WideString& text : texts)
    {
        for (const WideString& pattern : texts)
        {
            const bool expected = PlainMatch(text.c_str(), pattern.c_str());
            matches += expected;
            if ((MatchWildcard(text.c_str(), pattern.c_str()) != FALSE) != expected)
            {
                FAIL() << "text '" << Narrow(text) << "' pattern '" << Narrow(pattern) << "' expected " << expected;
            }
        }
    }
    EXPECT_GT(matches, texts.size());
}

TEST(WildcardMatch, AgreesWithPlainRecursionOnLongRandomTexts)
{
    const unsigned seed = std::random_device{}();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::cout << "seed " << seed << "\n";
    std::mt19937 random(seed);
    for (int round = 0; round < 40000; ++round)
    {
        const WideString text = RandomText(random, 24, L"aAbB\\\u00e4\u00c4*?");
        WideString pattern = RandomText(random, 12, L"aAbB\\\u00e4***?");
        if (round % 2 == 0)
        {
            // A pattern made from the text, so that long matches happen.
            pattern = text;
            for (WCHAR& character : pattern)
            {
                character = random() % 4 == 0 ? (random() % 2 ? L'*' : L'?') : character;
            }
        }
        ASSERT_EQ(MatchWildcard(text.c_str(), pattern.c_str()) != FALSE, PlainMatch(text.c_str(), pattern.c_str()))
            << "text '" << Narrow(text) << "' pattern '" << Narrow(pattern) << "'";
    }
}

TEST(WildcardMatch, EmptyTextMatchesEmptyPatternAndOneStarOnly)
{
    EXPECT_TRUE(MatchWildcard(L"", L""));
    EXPECT_TRUE(MatchWildcard(L"", L"*"));
    EXPECT_FALSE(MatchWildcard(L"", L"**"));
    EXPECT_FALSE(MatchWildcard(L"", L"?"));
    EXPECT_FALSE(MatchWildcard(L"", L"*a"));
    EXPECT_FALSE(MatchWildcard(L"a", L""));
}

TEST(WildcardMatch, StarRunsAcrossPathSeparators)
{
    const WCHAR path[] = L"C:\\Windows\\notepad.exe";
    EXPECT_TRUE(MatchWildcard(path, L"?:\\*"));
    EXPECT_TRUE(MatchWildcard(path, L"c:\\WINDOWS\\*.EXE"));
    EXPECT_TRUE(MatchWildcard(path, L"*\\notepad.exe"));
    EXPECT_FALSE(MatchWildcard(path, L"?:\\*.txt"));
    EXPECT_FALSE(MatchWildcard(path, L"\\Device\\*"));
    EXPECT_TRUE(MatchWildcard(L"C:\\Programs\\Orvane Hollowbay\\bin\\a.exe", L"*\\Orvane Hollowbay\\*"));
}

TEST(WildcardMatch, RunOfStarsNeedsACharacterForEachButTheLast)
{
    EXPECT_TRUE(MatchWildcard(L"abc", L"abc*"));
    EXPECT_FALSE(MatchWildcard(L"abc", L"abc**"));
    EXPECT_TRUE(MatchWildcard(L"abcd", L"abc**"));
    EXPECT_TRUE(MatchWildcard(L"abc", L"a**"));
    EXPECT_FALSE(MatchWildcard(L"abc", L"*c**"));
}

TEST(WildcardMatch, StarInTheTextIsAnOrdinaryCharacter)
{
    EXPECT_TRUE(MatchWildcard(L"a*b", L"a?b"));
    EXPECT_TRUE(MatchWildcard(L"a*b", L"a*b"));
    EXPECT_FALSE(MatchWildcard(L"a*b", L"axxb"));
    EXPECT_FALSE(MatchWildcard(L"a?b", L"axb"));
}

TEST(WildcardMatch, IsAnchoredAtBothEnds)
{
    EXPECT_FALSE(MatchWildcard(L"abc", L"ab"));
    EXPECT_FALSE(MatchWildcard(L"abc", L"bc"));
    EXPECT_FALSE(MatchWildcard(L"ab", L"abc"));
    EXPECT_FALSE(MatchWildcard(L"ab", L"ab?"));
}

TEST(WildcardMatch, FoldsCaseByTheSystemTable)
{
    EXPECT_TRUE(MatchWildcard(L"\u00e4\u0436", L"\u00c4\u0416"));
    EXPECT_TRUE(MatchWildcard(L"\u00c4\u0416", L"\u00e4\u0436"));
    EXPECT_FALSE(MatchWildcard(L"\u00e4", L"a"));
}

TEST(WildcardMatch, ManyStarsAreNoTrouble)
{
    const WideString text(400, L'a');
    WideString pattern;
    for (int i = 0; i < 60; ++i)
    {
        pattern += L"a*";
    }
    EXPECT_TRUE(MatchWildcard(text.c_str(), pattern.c_str()));
    pattern += L"b";
    EXPECT_FALSE(MatchWildcard(text.c_str(), pattern.c_str()));
}
}
