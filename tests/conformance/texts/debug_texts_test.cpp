// Every text that the driver gives to the kernel debugger is asserted by a test.

#include "tests/conformance/texts/source_literals.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace
{
using namespace texts;
namespace fs = std::filesystem;

const fs::path Sources = TARNVEIL_SOURCES;

// The driver's narrow strings are exactly its debugger texts.
std::vector<std::string> DebuggerTexts()
{
    std::vector<std::string> found;
    for (const fs::path& file : SourceFiles(Sources / "driver"))
    {
        for (const Literal& literal : ReadLiterals(ReadFile(file)))
        {
            if (!literal.Wide && !literal.Technical)
            {
                found.push_back(literal.Text);
            }
        }
    }
    return found;
}

// Strings of the tests, with what they are put together from joined by a NUL.
std::vector<std::string> TestStrings()
{
    std::vector<std::string> strings;
    for (const char* folder : {"tests/unit/driver", "tests/scenario"})
    {
        for (const fs::path& file : SourceFiles(Sources / folder))
        {
            for (const Literal& literal : ReadLiterals(ReadFile(file)))
            {
                if (literal.Continues)
                {
                    strings.back() += '\0' + literal.Text;
                }
                else
                {
                    strings.push_back(literal.Text);
                }
            }
        }
    }
    return strings;
}

bool IsAsserted(const std::string& text, const std::vector<std::string>& strings)
{
    const std::vector<std::string> parts = FixedParts(text);
    for (const std::string& string : strings)
    {
        if (ContainsInOrder(string, parts))
        {
            return true;
        }
    }
    return false;
}

TEST(DebuggerTexts, AreFoundInTheDriver)
{
    const std::vector<std::string> found = DebuggerTexts();
    EXPECT_GT(found.size(), 100u);
    EXPECT_NE(std::find(found.begin(), found.end(), "Tarnveil Unload\\n"), found.end());
}

TEST(DebuggerTexts, AreEachAssertedByATest)
{
    const std::vector<std::string> strings = TestStrings();
    for (const std::string& text : DebuggerTexts())
    {
        EXPECT_TRUE(IsAsserted(text, strings)) << "no test asserts \"" << text << '"';
    }
}

TEST(DebuggerTexts, ThatNobodyAssertsAreNoticed)
{
    const std::vector<std::string> strings = {"Tarnveil - one 5\\n", std::string("Tarnveil - two \0\\n", 18)};
    EXPECT_TRUE(IsAsserted("Tarnveil - one %d\\n", strings));
    EXPECT_TRUE(IsAsserted("Tarnveil - two %08x\\n", strings));
    EXPECT_FALSE(IsAsserted("Tarnveil - two %d more\\n", strings));
    EXPECT_FALSE(IsAsserted("Tarnveil - three\\n", strings));
}

TEST(SourceLiterals, AreReadAsTheCompilerJoinsThem)
{
    const std::vector<Literal> literals =
        ReadLiterals("// \"no\"\n#include \"a.h\"\nF(\"one \" \"two\", L\"wide\", \"x\" + Text(1, '\"') + \"y\");");
    ASSERT_EQ(literals.size(), 5u);
    EXPECT_TRUE(literals[0].Technical);
    EXPECT_EQ(literals[1].Text, "one two");
    EXPECT_FALSE(literals[1].Continues);
    EXPECT_TRUE(literals[2].Wide);
    EXPECT_EQ(literals[3].Text, "x");
    EXPECT_FALSE(literals[3].Continues);
    EXPECT_EQ(literals[4].Text, "y");
    EXPECT_TRUE(literals[4].Continues);
}
}
