// The tree keeps its own rules. What may stand against one is listed here, each with its reason.

#include "tests/conformance/source/reader/tree.h"
#include "tests/conformance/source/rules/build.h"
#include "tests/conformance/source/rules/driver.h"
#include "tests/conformance/source/rules/tests.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <functional>

namespace
{
using namespace source;

// The top of the tree that was built, or of the one that TARNVEIL_TREE names.
std::filesystem::path Top()
{
    const char* other = std::getenv("TARNVEIL_TREE");
    return other != nullptr ? other : TARNVEIL_SOURCES;
}

const Tree& TheTree()
{
    static const Tree tree = ReadTree(Top());
    return tree;
}

std::string TextOf(const std::filesystem::path& path)
{
    std::ifstream file(path);
    std::string text(std::istreambuf_iterator<char>(file), {});
    EXPECT_TRUE(file) << path << " cannot be read";
    return text;
}

// What a rule finds in the sources below any of the folders.
Findings FindBelow(const std::vector<std::string_view>& folders, const std::function<Findings(const SourceText&)>& rule)
{
    Findings all;
    for (const SourceText& source : TheTree().Sources)
    {
        for (const std::string_view folder : folders)
        {
            if (source.Path.starts_with(folder))
            {
                const Findings found = rule(source);
                all.insert(all.end(), found.begin(), found.end());
            }
        }
    }
    return all;
}

TEST(TheTree, IsRead)
{
    EXPECT_GT(TheTree().Sources.size(), 500u);
    EXPECT_GT(TheTree().Texts.size(), 50u);
}

TEST(TheTree, CompilesOneDriverForAllPlatforms)
{
    EXPECT_EQ(Judge(FindBelow({"driver/"}, FindConditions)), "");
}

// The compiler refuses a driver routine whose frame takes more than 1 KiB, in the image that ./test builds first. What
// a sanitizer adds to frames is no measure.
TEST(TheTree, IsBuiltWithSmallFrames)
{
    std::vector<std::string> paths;
    for (const SourceText& source : TheTree().Sources)
    {
        if (source.Path.starts_with("driver/") && !source.IsHeader())
        {
            paths.push_back(source.Path);
        }
    }
    const std::filesystem::path record = std::filesystem::path(TARNVEIL_IMAGE).parent_path() / "compile_commands.json";
    EXPECT_EQ(Judge(FindUnlimitedFrames(TextOf(record), paths)), "");
    EXPECT_NE(TextOf(Top() / "cmake/native.cmake")
                  .find("\n    list(APPEND TARNVEIL_DRIVER_OPTIONS -Wframe-larger-than=1024)"),
        std::string::npos);
}

TEST(TheTree, IsFormatted)
{
    std::vector<std::string> paths;
    for (const SourceText& source : TheTree().Sources)
    {
        paths.push_back(source.Path);
    }
    EXPECT_EQ(Judge(FindUnformatted(Top(), paths)), "");
}

TEST(TheTree, TakesTheDriversLocksThroughWithLock)
{
    EXPECT_EQ(Judge(FindBelow({"driver/"}, FindBareLocks),
                  {{"driver/util/lock.h", "ExAcquireFastMutex ", "WithLock itself"},
                      {"driver/util/lock.h", "ExReleaseFastMutex ", "WithLock itself"}}),
        "");
    EXPECT_EQ(Judge(FindBelow({"driver/"}, FindWrongLocks), {{"driver/util/lock.h", "lock is held for a body",
                                                                "passes on a body that says itself what it requires"}}),
        "");
}

TEST(TheTree, HasNoTestThatSleeps)
{
    static const char* reason = "shows that another thread does not go on; nothing would tell of that";
    EXPECT_EQ(Judge(FindBelow({"tests/"}, FindSleeps),
                  {{"tests/unit/driver/core/control_request_test.cpp", "sleep_for ", reason},
                      {"tests/unit/hosted/cc/cache_test.cpp", "sleep_for ", reason}}),
        "");
}

TEST(TheTree, HasNoTestThatExpectsNothing)
{
    EXPECT_EQ(Judge(FindEmptyTests(TheTree().Sources),
                  {{"tests/conformance/results/program/outcomes_program.cpp", "",
                      "its tests end in every way there is, so that the counting of ends can be tried"}}),
        "");
}
}
