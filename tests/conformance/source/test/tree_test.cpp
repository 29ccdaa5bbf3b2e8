// The tree keeps its own rules. What may stand against one is listed here, each with its reason.

#include "tests/conformance/source/reader/tree.h"
#include "tests/conformance/source/rules/driver.h"
#include "tests/conformance/source/rules/tests.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <functional>

namespace
{
using namespace source;

// The tree that was built, or the one that TARNVEIL_TREE names.
const Tree& TheTree()
{
    static const Tree tree = []
    {
        const char* other = std::getenv("TARNVEIL_TREE");
        return ReadTree(other != nullptr ? other : TARNVEIL_SOURCES);
    }();
    return tree;
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
