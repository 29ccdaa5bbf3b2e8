// Comparing counted names.

#include "driver/util/name_matching.h"
#include "driver/util/pool.h"
#include "hosted/ex/pool.h"
#include "hosted/ke/failure_injection.h"
#include "hosted/rtl/debug_print.h"
#include "tests/support/machine.h"

namespace
{
using namespace hosted;

class NameMatching : public testing::Test
{
protected:
    void SetUp() override
    {
        // An earlier machine may have been another system.
        InitializePoolPolicy();
    }
    bool Matches(WideView name, WideView pattern)
    {
        const UNICODE_STRING nameString = Counted(name);
        const UNICODE_STRING patternString = Counted(pattern);
        return MatchNamePattern(&nameString, &patternString);
    }
    bool Equal(WideView first, WideView second)
    {
        const UNICODE_STRING a = Counted(first);
        const UNICODE_STRING b = Counted(second);
        return IsEqualNameNoCase(&a, &b);
    }
    bool Prefix(WideView prefix, WideView name)
    {
        const UNICODE_STRING a = Counted(prefix);
        const UNICODE_STRING b = Counted(name);
        return IsPrefixNameNoCase(&a, &b);
    }
    LONG Compare(WideView first, WideView second)
    {
        const UNICODE_STRING a = Counted(first);
        const UNICODE_STRING b = Counted(second);
        return CompareNameNoCase(&a, &b);
    }

    Machine Computer;
};

TEST_F(NameMatching, PatternNeverMatchesANullSide)
{
    const UNICODE_STRING star = Counted(L"*");
    const UNICODE_STRING noBuffer = {};
    EXPECT_FALSE(MatchNamePattern(nullptr, &star));
    EXPECT_FALSE(MatchNamePattern(&star, nullptr));
    EXPECT_FALSE(MatchNamePattern(nullptr, nullptr));
    EXPECT_FALSE(MatchNamePattern(&noBuffer, &star));
    EXPECT_FALSE(MatchNamePattern(&star, &noBuffer));
}

TEST_F(NameMatching, AnOddLengthCountsWholeCharactersOnly)
{
    WCHAR text[] = L"abc";
    const UNICODE_STRING name = {5, 6, text};
    const UNICODE_STRING two = Counted(L"ab");
    const UNICODE_STRING three = Counted(L"ab?");
    EXPECT_TRUE(MatchNamePattern(&name, &two));
    EXPECT_FALSE(MatchNamePattern(&name, &three));
    EXPECT_TRUE(MatchNamePattern(&two, &name));
}

TEST_F(NameMatching, EmptyNameMatchesStar)
{
    WCHAR nothing[1] = {};
    const UNICODE_STRING empty = {0, 0, nothing};
    const UNICODE_STRING star = Counted(L"*");
    EXPECT_TRUE(MatchNamePattern(&empty, &star));
    EXPECT_TRUE(MatchNamePattern(&empty, &empty));
}

TEST_F(NameMatching, PatternNeedsNoTerminators)
{
    const WideView whole = L"C:\\a.txtX*";
    EXPECT_TRUE(Matches(whole.substr(0, 8), WideView(L"?:\\*.TXTzz").substr(0, 8)));
    EXPECT_FALSE(Matches(whole, L"?:\\*.txt"));
}

TEST_F(NameMatching, NulInsideEndsEitherSide)
{
    EXPECT_TRUE(Matches(WideView(L"ab\0cd", 5), L"ab"));
    EXPECT_TRUE(Matches(L"ab", WideView(L"a?\0cd", 5)));
    EXPECT_FALSE(Matches(WideView(L"ab\0cd", 5), L"ab?cd"));
}

TEST_F(NameMatching, NoMemoryReadsAsNoMatchAndKeepsNothing)
{
    ASSERT_TRUE(Matches(L"abc", L"a*"));
    const size_t before = LivePoolAllocations();
    for (uint64_t number : {1, 2})
    {
        FailRoutine("ExAllocatePoolWithTag", number);
        EXPECT_FALSE(Matches(L"abc", L"a*")) << number;
        ResetFailures();
        EXPECT_EQ(LivePoolAllocations(), before);
    }
    EXPECT_TRUE(DebugPrints().empty());
}

TEST_F(NameMatching, EqualityIgnoresCase)
{
    EXPECT_TRUE(Equal(L"\\Device\\Abc", L"\\dEVICE\\aBC"));
    EXPECT_TRUE(Equal(L"\u00e4", L"\u00c4"));
    EXPECT_FALSE(Equal(L"abc", L"abcd"));
    EXPECT_FALSE(Equal(L"abcd", L"abc"));
    EXPECT_FALSE(Equal(L"abc", L"abd"));
}

TEST_F(NameMatching, EmptyStringsWithoutBuffersAreEqual)
{
    const UNICODE_STRING first = {};
    const UNICODE_STRING second = {};
    EXPECT_TRUE(IsEqualNameNoCase(&first, &second));
    EXPECT_FALSE(IsEqualNameNoCase(nullptr, &second));
    EXPECT_FALSE(IsEqualNameNoCase(&first, nullptr));
}

TEST_F(NameMatching, OddLastByteCountsInLengthOnly)
{
    UNICODE_STRING odd = Counted(L"abx");
    odd.Length = 5;
    UNICODE_STRING otherOdd = Counted(L"ABy");
    otherOdd.Length = 5;
    const UNICODE_STRING even = Counted(L"ab");
    EXPECT_TRUE(IsEqualNameNoCase(&odd, &otherOdd));
    EXPECT_FALSE(IsEqualNameNoCase(&odd, &even));
    EXPECT_EQ(CompareNameNoCase(&even, &odd), 1);
    EXPECT_EQ(CompareNameNoCase(&odd, &even), -1);
    EXPECT_EQ(CompareNameNoCase(&odd, &otherOdd), 0);
}

TEST_F(NameMatching, PrefixComesFirst)
{
    EXPECT_TRUE(Prefix(L"\\??\\UNC", L"\\??\\unc\\server\\share"));
    EXPECT_FALSE(Prefix(L"\\??\\unc\\server\\share", L"\\??\\UNC"));
    EXPECT_TRUE(Prefix(L"abc", L"ABC"));
    EXPECT_FALSE(Prefix(L"abd", L"abcd"));
}

TEST_F(NameMatching, EmptyPrefixIsAPrefixOfEverything)
{
    EXPECT_TRUE(Prefix(L"", L"abc"));
    EXPECT_TRUE(Prefix(L"", L""));
    const UNICODE_STRING empty = {};
    EXPECT_TRUE(IsPrefixNameNoCase(&empty, &empty));
    EXPECT_FALSE(IsPrefixNameNoCase(nullptr, &empty));
    EXPECT_FALSE(IsPrefixNameNoCase(&empty, nullptr));
}

TEST_F(NameMatching, ComparisonSortsAPrefixAfterTheLongerString)
{
    EXPECT_EQ(Compare(L"abc", L"ABC"), 0);
    EXPECT_EQ(Compare(L"ab", L"abc"), 1);
    EXPECT_EQ(Compare(L"abc", L"ab"), -1);
    EXPECT_EQ(Compare(L"abd", L"abc"), 1);
    EXPECT_EQ(Compare(L"abc", L"abd"), -1);
    EXPECT_EQ(Compare(L"", L""), 0);
    EXPECT_EQ(Compare(L"", L"a"), 1);
    EXPECT_EQ(Compare(L"a", L"\xfffd"), -1);
}
}
