// What ./test counts, over real CTest runs of programs that pass, fail, skip, crash, leak or are not there.

#include "tests/support/shell.h"
#include "tests/support/temporary_folder.h"
#include "tests/support/text.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace
{
using testing::StartsWith;
using testing::UnorderedElementsAre;

class CountedResults : public testing::Test
{
protected:
    // Runs CTest over the programs' suites.
    void RunTestsOf(const std::vector<std::string>& programs)
    {
        std::string list = "set(TEST_LABEL kind)\nset(TEST_RESULTS [[" + build_.Path("results") + "]])\n";
        for (const std::string& program : programs)
        {
            list +=
                "set(TEST_PROGRAM [[" + program + "]])\ninclude([[" TARNVEIL_SOURCES "/cmake/test_suites.cmake]])\n";
        }
        build_.Put("CTestTestfile.cmake", list);
        RunShell("ctest --test-dir " + Quoted(build_.Path()) + " --output-junit junit.xml 2>&1");
    }

    // The lines that ./test prints about the run, with the counts last.
    std::vector<std::string> Count() const
    {
        const std::string script =
            "passed=0; failed=0; . " TARNVEIL_SOURCES "/scripts/count_results.sh; count_results \"$0\"; "
            "echo \"$passed passed, $failed failed\"";
        return Lines(RunShell("bash -uc '" + script + "' " + Quoted(build_.Path()) + " 2>&1").Output);
    }

    const TemporaryFolder build_;
};

TEST_F(CountedResults, EveryOutcomeCountsAsWhatItIs)
{
    RunTestsOf({OUTCOMES_PROGRAM});
    EXPECT_THAT(Count(),
        UnorderedElementsAre(
            StartsWith("failed Failing.Differs: Expected equality of these values:   std::string(\"<a> & 'b'\")"),
            StartsWith("failed Failing.Throws: C++ exception with description \"thrown\""),
            "skipped Skipping.WithAReason: this machine has none",
            StartsWith("failed Numbers/Each.IsPositive/0: Expected: (GetParam()) > (0), actual: -1 vs 0"),
            "failed kind.Crashing: it named no test", "failed kind.Leaking: it named no test",
            // Passing.*, Failing.Passes, Each/1 and 2, and what leaks.
            "6 passed, 5 failed"));
}

TEST_F(CountedResults, AProgramThatIsNotThereIsAFailure)
{
    RunTestsOf({build_.Path("absent")});
    EXPECT_THAT(Count(), UnorderedElementsAre("failed kind.absent: it named no test", "0 passed, 1 failed"));
}

TEST_F(CountedResults, AProgramThatCannotListItsTestsIsAFailure)
{
    build_.Put("broken", "#!/bin/sh\nexit 3\n");
    std::filesystem::permissions(build_.Path("broken"), std::filesystem::perms::owner_all);
    RunTestsOf({build_.Path("broken")});
    EXPECT_THAT(Count(), UnorderedElementsAre("failed kind.broken: it named no test", "0 passed, 1 failed"));
}

TEST_F(CountedResults, ARunWithoutTestsIsAFailure)
{
    RunTestsOf({});
    EXPECT_THAT(Count(), UnorderedElementsAre(StartsWith("no test ran in "), "0 passed, 1 failed"));
}

TEST_F(CountedResults, AFolderInWhichNothingRanIsAFailure)
{
    EXPECT_THAT(Count(), UnorderedElementsAre(StartsWith("no test ran in "), "0 passed, 1 failed"));
}
}
