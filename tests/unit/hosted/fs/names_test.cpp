#include "hosted/fs/names.h"

#include <gtest/gtest.h>

#include <set>

namespace hosted
{
namespace
{
std::string Parsed(WideView text, bool relative = false)
{
    ParsedPath path;
    const NTSTATUS status = ParsePath(text, relative, &path);
    if (status != STATUS_SUCCESS)
    {
        return status == STATUS_OBJECT_NAME_INVALID ? "invalid"
               : status == STATUS_INVALID_PARAMETER ? "parameter"
                                                    : "?";
    }
    std::string shown;
    for (const WideString& component : path.Components)
    {
        shown += "[" + Narrow(component) + "]";
    }
    return shown + (path.StreamGiven ? ":" + Narrow(path.Stream) : "") + (path.TrailingBackslash ? "/" : "");
}

TEST(FileNames, PathsAreTakenApart)
{
    EXPECT_EQ(Parsed(L"\\a\\b.txt"), "[a][b.txt]");
    EXPECT_EQ(Parsed(L"\\"), "");
    EXPECT_EQ(Parsed(L""), "");
    EXPECT_EQ(Parsed(L"\\a\\"), "[a]/");
    EXPECT_EQ(Parsed(L"\\a\\b:notes"), "[a][b]:notes");
    EXPECT_EQ(Parsed(L"\\a\\b:notes:$data"), "[a][b]:notes");
    EXPECT_EQ(Parsed(L"\\a\\b::$DATA"), "[a][b]:");
    EXPECT_EQ(Parsed(L"b\\c", true), "[b][c]");
    EXPECT_EQ(Parsed(L":notes", true), ":notes");
    EXPECT_EQ(Parsed(L"\\:notes"), ":notes");
}

TEST(FileNames, ImpossiblePathsAreRefused)
{
    for (WideView path : {WideView(L"a"), WideView(L"\\\\"), WideView(L"\\a\\\\b"), WideView(L"\\a\\\\"),
             WideView(L"\\a:b\\c"), WideView(L"\\a:"), WideView(L"\\a:b:$INDEX"), WideView(L"\\a:b\\"),
             WideView(L"\\a*"), WideView(L"\\."), WideView(L"\\a\\.."), WideView(L"\\a\\:b"), WideView(L"\\a\x01")})
    {
        EXPECT_EQ(Parsed(path), "invalid") << Narrow(path);
    }
    EXPECT_EQ(Parsed(L"\\a", true), "parameter");
    EXPECT_EQ(Parsed(L"\\" + WideString(255, L'n')).size(), 257u);
    EXPECT_EQ(Parsed(L"\\" + WideString(256, L'n')), "invalid");
}

TEST(FileNames, ShortNamesAreRecognised)
{
    for (WideView name : {WideView(L"A"), WideView(L"plan.txt"), WideView(L"EIGHTCHR.EXT"), WideView(L"A~1.T")})
    {
        EXPECT_TRUE(IsShortName(name)) << Narrow(name);
    }
    for (WideView name : {WideView(L"ninechars"), WideView(L"a.long"), WideView(L"a.b.c"), WideView(L".txt"),
             WideView(L"a."), WideView(L"a b"), WideView(L"a+b"), WideView(L"\x00e4")})
    {
        EXPECT_FALSE(IsShortName(name)) << Narrow(name);
    }
}

std::string Short(WideView name, std::set<WideString> taken = {})
{
    return Narrow(MakeShortName(name, [&](WideView wanted) { return taken.contains(WideString(wanted)); }));
}

TEST(FileNames, ShortNamesAreMade)
{
    EXPECT_EQ(Short(L"Long file name.text"), "LONGFI~1.TEX");
    EXPECT_EQ(Short(L"Long file name.text", {L"LONGFI~1.TEX"}), "LONGFI~2.TEX");
    EXPECT_EQ(Short(L"a.b.c"), "AB~1.C");
    EXPECT_EQ(Short(L".profile"), "PROFIL~1");
    EXPECT_EQ(Short(L"a+b.x"), "A_B~1.X");
    EXPECT_EQ(Short(L"x y"), "XY~1");
}

TEST(FileNames, ManyShortNamesStayShortAndDifferent)
{
    std::set<WideString> taken;
    for (int i = 0; i < 300; ++i)
    {
        WideString name = MakeShortName(
            L"The same long name.document", [&](WideView wanted) { return taken.contains(WideString(wanted)); });
        EXPECT_TRUE(IsShortName(name)) << Narrow(name);
        EXPECT_TRUE(taken.insert(name).second);
    }
    EXPECT_TRUE(taken.contains(L"THESAM~4.DOC"));
    EXPECT_FALSE(taken.contains(L"THESAM~5.DOC"));
}

TEST(FileNames, PatternsMatch)
{
    const auto matches = [](WideView pattern, WideView name) { return MatchesPattern(pattern, name); };
    EXPECT_TRUE(matches(L"*", L"anything"));
    EXPECT_TRUE(matches(L"*.TXT", L"plan.txt"));
    EXPECT_FALSE(matches(L"*.txt", L"plan.txt.bak"));
    EXPECT_TRUE(matches(L"p?an*", L"plan.txt"));
    EXPECT_FALSE(matches(L"p?an", L"pan"));
    EXPECT_TRUE(matches(L"*a*b*", L"xxaxxbxx"));
    EXPECT_FALSE(matches(L"*a*b*", L"xxbxxaxx"));
    EXPECT_TRUE(matches(L"plan<", L"plan"));
    EXPECT_TRUE(matches(L"<.txt", L"a.b.txt"));
    EXPECT_FALSE(matches(L"<.b", L"a.b.txt"));
    EXPECT_TRUE(matches(L"pl>>>>.txt", L"plan.txt"));
    EXPECT_TRUE(matches(L"plan\"", L"plan"));
    EXPECT_TRUE(matches(L"plan\"txt", L"plan.txt"));
    EXPECT_FALSE(matches(L"plan\"", L"plant"));
}
}
}
