// Sources are read as a compiler reads them.

#include "tests/conformance/source/reader/routines.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace
{
using namespace source;
using testing::ElementsAre;

std::vector<std::string> TokensOf(const std::string& text)
{
    std::vector<std::string> texts;
    const SourceText source = ReadSource("a.cpp", text);
    for (const Token& token : source.Tokens)
    {
        texts.emplace_back(token.Text);
    }
    return texts;
}

std::vector<std::string> NamesOf(const std::string& text)
{
    std::vector<std::string> names;
    for (const Routine& routine : RoutinesOf(ReadSource("a.h", text)))
    {
        names.push_back(routine.Class.empty() ? routine.Name : routine.Class + "::" + routine.Name);
    }
    return names;
}

TEST(SourceText, HasNoCommentsAmongItsTokens)
{
    EXPECT_THAT(TokensOf("a /* b */ c // d\n\"// e\" f"), ElementsAre("a", "c", "\"// e\"", "f"));
}

TEST(SourceText, KeepsStringsAndCharactersWhole)
{
    EXPECT_THAT(TokensOf(R"(F(L"a\"b", '"', u8"c");)"),
        ElementsAre("F", "(", "L\"a\\\"b\"", ",", "'\"'", ",", "u8\"c\"", ")", ";"));
    EXPECT_THAT(TokensOf("R\"x({ \" })\" )x\" after"), ElementsAre("R\"x({ \" })\" )x\"", "after"));
}

TEST(SourceText, TakesSeparatorsForPartsOfNumbers)
{
    EXPECT_THAT(TokensOf("1'000'000 + 0x1E+2 1.5e-3f"), ElementsAre("1'000'000", "+", "0x1E", "+", "2", "1.5e-3f"));
}

TEST(SourceText, CountsTheLinesOfAll)
{
    const SourceText source = ReadSource("a.cpp", "/* 1\n2 */\n#define A \\\n4\nb\nR\"(6\n7)\"\nc");
    ASSERT_EQ(source.Tokens.size(), 3u);
    EXPECT_EQ(source.Tokens[0].Line, 5);
    EXPECT_EQ(source.Tokens[1].Line, 6);
    EXPECT_EQ(source.Tokens[2].Line, 8);
    EXPECT_EQ(source.Lines.size(), 8u);
}

TEST(SourceText, SaysWhatIsIncluded)
{
    const SourceText source = ReadSource("a.cpp", "#include \"a/b.h\" // for b\n# include <c.h>\n#define D \"e\"\n");
    ASSERT_EQ(source.Directives.size(), 3u);
    EXPECT_EQ(QuotedInclude(source.Directives[0]), "a/b.h");
    EXPECT_EQ(AngledInclude(source.Directives[0]), "");
    EXPECT_EQ(AngledInclude(source.Directives[1]), "c.h");
    EXPECT_EQ(QuotedInclude(source.Directives[2]), "");
    EXPECT_TRUE(source.Tokens.empty());
}

TEST(SourceText, JoinsCommentsOfWholeLines)
{
    const SourceText source = ReadSource("a.cpp", "// a\n// b\n\n// c\nint d; // e\n// f\n");
    ASSERT_EQ(source.Comments.size(), 4u);
    EXPECT_EQ(source.Comments[0].Text, "// a\n// b");
    EXPECT_EQ(source.Comments[0].LastLine, 2);
    EXPECT_EQ(source.Comments[2].Text, "// e");
}

TEST(SourceText, ThatIsCutOffEndsSomewhere)
{
    for (const char* text :
        {"\"a", "'", "/* a", "R\"(", "R\"", "#", "#define \\", "f(", "{[(", "}", "1'", "template <"})
    {
        const SourceText source = ReadSource("a.cpp", text);
        EXPECT_LE(RoutinesOf(source).size(), 1u) << text;
    }
}

TEST(Routines, AreFoundInNamespacesAndClasses)
{
    EXPECT_THAT(
        NamesOf("namespace a::b { int F(); class C : public D<int(int)> { C(); ~C(); void G() const { x(); } }; }"
                "extern \"C\" { void H(); }"),
        ElementsAre("F", "C::C", "C::~C", "C::G", "H"));
}

TEST(Routines, AreNamedByTheLastOfTheirNames)
{
    EXPECT_THAT(NamesOf("std::vector<int> A::B::F(int a = 3) { } A::~A() { } bool operator==(const A&, const A&) { }"
                        "A& A::operator=(A&& other) noexcept { return *this; } int A::operator()(int x) const { }"),
        ElementsAre("B::F", "A::~A", "operator", "A::operator", "A::operator"));
}

TEST(Routines, HaveHeadsOfAllKinds)
{
    EXPECT_THAT(
        NamesOf("template <class T, int N = (1 > 0)> auto F(T t) -> decltype(t.x()) REQUIRES_LOCK(lock_) { }"
                "A::A(int b) : c_(b), d_{b}, e_{} { } struct tm* G(void) { } static inline int* H() noexcept { }"
                "class LOCK_CAPABILITY(\"mutex\") M { void L() ACQUIRES_LOCK() { } };"
                "__attribute__((noinline)) void N() { } struct alignas(8) P { int Q(); };"),
        ElementsAre("F", "A::A", "G", "H", "M::L", "N", "P::Q"));
}

TEST(Routines, AreNoValuesTypesOrMacros)
{
    EXPECT_THAT(NamesOf("int a = F(); int b{G()}; const std::map<int, void (*)(int)> c = {{1, [](int) { H(); }}};"
                        "void (*d)(int); typedef int (*E)(int); using F = int(int); enum class G : int { a = F(1) };"
                        "static_assert(sizeof(int) == 4); INSTANTIATE(Suite, Test, Values(1)); friend int K();"
                        "int l GUARDED_BY(lock); std::function<void(int)> m{[] { n(); }};"),
        ElementsAre());
}

TEST(Routines, KnowTheirPlaces)
{
    const SourceText source =
        ReadSource("a.h", "class A\n{\n    int F();\n\npublic:\n    int\n    G()\n    {\n    }\n};\n"
                          "namespace\n{\nstruct B\n{\n    void H() {}\n};\n}\n");
    const std::vector<Routine> routines = RoutinesOf(source);
    ASSERT_EQ(routines.size(), 3u);
    EXPECT_TRUE(routines[0].IsHidden);
    EXPECT_FALSE(routines[0].HasBody());
    EXPECT_FALSE(routines[1].IsHidden);
    EXPECT_EQ(routines[1].FirstLine, 6);
    EXPECT_EQ(routines[1].LastLine, 9);
    EXPECT_FALSE(routines[1].IsLocal);
    EXPECT_TRUE(routines[2].IsLocal);
    EXPECT_FALSE(routines[2].IsHidden);
}
}
