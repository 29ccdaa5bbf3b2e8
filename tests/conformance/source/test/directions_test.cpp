// The rules of who may include whom, on made-up sources.

#include "tests/conformance/source/rules/directions.h"
#include "tests/conformance/source/test/rule_test.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace
{
using namespace source;
using testing::ElementsAre;
using testing::IsEmpty;

TEST(Folders, AreThoseOfTheTables)
{
    EXPECT_EQ(FolderOf("driver/log/a.h"), "driver/log");
    EXPECT_EQ(FolderOf("hosted/fs/a.h"), "hosted/fs");
    EXPECT_EQ(FolderOf("hosted/fs/store/a.h"), "hosted/fs/store");
    EXPECT_EQ(FolderOf("hosted/include/nt/a.h"), "hosted/include");
    EXPECT_EQ(FolderOf("live/mount/a.h"), "live/mount");
    EXPECT_EQ(FolderOf("agent/tarnctl/a.h"), "agent");
    EXPECT_EQ(FolderOf("include/tarnveil/a.h"), "include");
    EXPECT_EQ(FolderOf("tests/unit/driver/log/a.h"), "tests/unit");
    EXPECT_EQ(FolderOf("a.h"), "");
}

TEST(Includes, OfDriverHeadersPointOneWay)
{
    const std::string util = "#include <ntifs.h>\n#include \"driver/util/list.h\"\n";
    EXPECT_THAT(Found(FindWrongIncludes, util, "driver/log/a.h"), IsEmpty());
    EXPECT_THAT(Found(FindWrongIncludes, "#include \"driver/core/global_state.h\"\n", "driver/log/a.cpp"), IsEmpty());
    EXPECT_THAT(Found(FindWrongIncludes, util + "#include \"driver/core/global_state.h\"\n", "driver/log/a.h"),
        ElementsAre("3: driver/log may not include driver/core/global_state.h"));
    EXPECT_THAT(Found(FindWrongIncludes, "#include \"hosted/ke/irql.h\"\n", "driver/log/a.cpp"),
        ElementsAre("1: driver/log may not include hosted/ke/irql.h"));
}

TEST(Includes, OfTheHostedKernelPointOneWay)
{
    EXPECT_THAT(
        Found(FindWrongIncludes, "#include \"hosted/ke/irql.h\"\n#include \"common/mutex.h\"\n", "hosted/ex/a.cpp"),
        IsEmpty());
    EXPECT_THAT(Found(FindWrongIncludes, "#include \"hosted/ex/fast_mutex.h\"\n", "hosted/ke/a.cpp"),
        ElementsAre("1: hosted/ke may not include hosted/ex/fast_mutex.h"));
    EXPECT_THAT(Found(FindWrongIncludes, "#include \"live/control/a.h\"\n", "hosted/machine/a.cpp"),
        ElementsAre("1: hosted/machine may not include live/control/a.h"));
    EXPECT_THAT(Found(FindWrongIncludes, "#include \"hosted/fs/folder/a.h\"\n", "hosted/fs/store/a.cpp"),
        ElementsAre("1: hosted/fs/store may not include hosted/fs/folder/a.h"));
}

TEST(Includes, OfEverythingElseAreInATable)
{
    EXPECT_THAT(Found(FindWrongIncludes, "#include \"tests/support/text.h\"\n", "tests/scenario/a.cpp"), IsEmpty());
    EXPECT_THAT(Found(FindWrongIncludes, "#include \"tests/unit/a.h\"\n", "tests/scenario/a.cpp"),
        ElementsAre("1: tests/scenario may not include tests/unit/a.h"));
    EXPECT_THAT(Found(FindWrongIncludes, "#include \"live/control/a.h\"\n", "agent/tarnctl/a.cpp"),
        ElementsAre("1: agent may not include live/control/a.h"));
    EXPECT_THAT(
        Found(FindWrongIncludes, "", "elsewhere/a.cpp"), ElementsAre("1: no table says what elsewhere may include"));
}

TEST(Includes, AreFoundFromBesideToo)
{
    EXPECT_THAT(Found(FindWrongIncludes, "#include \"a.h\"\n#include \"../../support/b.h\"\n", "tests/unit/c/d.cpp"),
        IsEmpty());
    EXPECT_THAT(Found(FindWrongIncludes, "#include \"../ex/pool.h\"\n", "hosted/ke/a.h"),
        ElementsAre("1: hosted/ke may not include hosted/ex/pool.h"));
}

TEST(TestFramework, IsForTests)
{
    EXPECT_THAT(Found(FindTestFramework, "#include <gtest/gtest.h>\n", "tests/support/a.h"), IsEmpty());
    EXPECT_THAT(Found(FindTestFramework, "#include <vector>\n", "hosted/machine/a.h"), IsEmpty());
    EXPECT_THAT(Found(FindTestFramework, "#include <gmock/gmock.h>\n", "hosted/machine/a.h"),
        ElementsAre("1: gmock/gmock.h is for tests alone"));
}

std::string Pairs(const std::vector<std::pair<std::string, std::string>>& includes)
{
    std::vector<SourceText> sources;
    for (const auto& [path, included] : includes)
    {
        sources.push_back(ReadSource(path, "\n#include \"" + included + "\"\n"));
    }
    return Judge(FindMutualPairs(sources));
}

TEST(MutualPairs, AreFolders)
{
    EXPECT_EQ(Pairs({{"hosted/ex/a.cpp", "hosted/ke/b.h"}, {"hosted/ke/a.h", "hosted/ke/b.h"}}), "");
    EXPECT_EQ(Pairs({{"hosted/ex/a.cpp", "hosted/ke/b.h"}, {"hosted/ke/c.cpp", "hosted/ex/d.h"}}),
        "hosted/ex/a.cpp:2: hosted/ex and hosted/ke include each other\n");
}

TEST(MutualPairs, AreMadeByHeadersInTheDriver)
{
    EXPECT_EQ(Pairs({{"driver/log/a.cpp", "driver/core/b.h"}, {"driver/core/c.h", "driver/log/d.h"}}), "");
    EXPECT_EQ(Pairs({{"driver/log/a.h", "driver/core/b.h"}, {"driver/core/c.h", "driver/log/d.h"}}),
        "driver/core/c.h:2: driver/core and driver/log include each other\n");
}
}
