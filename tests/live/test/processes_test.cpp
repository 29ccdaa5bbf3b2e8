// Who is inside: real shells and their real children.
#include "tests/live/test/live_fixture.h"

#include <gmock/gmock.h>

namespace
{
namespace fs = std::filesystem;
using live_test::Outcome;
using testing::HasSubstr;
using testing::Not;

class LiveProcesses : public live_test::LiveTest, public testing::WithParamInterface<bool>
{
protected:
    void SetUp() override
    {
        Serve(GetParam() ? TARNVEIL_IMAGE : "");
        if (volume)
        {
            ASSERT_EQ(volume->Inside("echo secret > document").Code, 0);
        }
    }

    std::string Document() const { return Quoted(volume->Sandbox() / "document"); }
    // A program of this test's own, by a path of its own.
    std::string CopyOfShell(const char* name) const
    {
        const fs::path copy = volume->Folder() / name;
        fs::copy_file("/bin/bash", copy);
        return copy.string();
    }
    std::string Pattern(const std::string& path) const { return "'" + live_test::SystemPath(path) + "'"; }
};

TEST_P(LiveProcesses, ChildrenOfAMonitoredParentAreInsideAtAnyDepth)
{
    EXPECT_EQ(volume->Inside("cat document; bash -c 'cat document; bash -c \"cat document; true\"; true'").Output,
        "secret\nsecret\nsecret\n");
    // A child whose parent is gone by the time it reads.
    EXPECT_EQ(volume
                  ->Inside("mkfifo go done\n"
                           "bash -c '(read word < go; cat document > late; echo > done) & true'\n"
                           "echo > go; read word < done; cat late")
                  .Output,
        "secret\n");
}

TEST_P(LiveProcesses, TheParentItselfIsNotInside)
{
    const Outcome outcome = Outside(Quoted(volume->Folder() / "launch") + " -c 'read line < " +
                                    (volume->Sandbox() / "document").string() + "; echo \"got $line\"'");
    EXPECT_THAT(outcome.Output, HasSubstr("Permission denied"));
    EXPECT_THAT(outcome.Output, Not(HasSubstr("secret")));
}

TEST_P(LiveProcesses, AListedProgramIsInsideAndItsChildrenAreNot)
{
    const std::string shell = CopyOfShell("editor");
    ASSERT_EQ(volume->Agent("process add " + Pattern(shell)).Code, 0);
    EXPECT_EQ(Outside(shell + " -c 'read line < " + Document() + "; echo \"got $line\"'").Output, "got secret\n");
    const Outcome child = Outside(shell + " -c \"cat " + Document() + "; true\"");
    EXPECT_THAT(child.Output, HasSubstr("Permission denied"));
    // A copy of itself that runs no other image is the same program.
    EXPECT_EQ(Outside(shell + " -c '(read line < " + Document() + "; echo \"got $line\")'").Output, "got secret\n");
}

TEST_P(LiveProcesses, AnExcludedProgramIsNotInside)
{
    const std::string shell = CopyOfShell("never");
    ASSERT_EQ(volume->Agent("exclude add " + Pattern(shell)).Code, 0);
    const Outcome outcome = volume->Inside(shell + " -c 'read line < document; echo \"got $line\"'");
    EXPECT_THAT(outcome.Output, HasSubstr("Permission denied"));
    EXPECT_THAT(outcome.Output, Not(HasSubstr("secret")));
}

TEST_P(LiveProcesses, AProgramThatRunsAnotherImageIsJudgedByThat)
{
    const std::string shell = CopyOfShell("editor");
    ASSERT_EQ(volume->Agent("process add " + Pattern(shell)).Code, 0);
    // The same process, first the listed image, then cat.
    const Outcome outcome =
        Outside(shell + " -c 'read line < " + Document() + "; echo \"got $line\"; exec cat " + Document() + "'");
    EXPECT_THAT(outcome.Output, HasSubstr("got secret\n"));
    EXPECT_THAT(outcome.Output, HasSubstr("Permission denied"));
}

TEST_P(LiveProcesses, WhatIsCachedForOneIsNotShownToAnother)
{
    ASSERT_EQ(volume->Inside("cat document; stat document; ls").Code, 0);
    for (const char* attempt : {"cat ", "stat ", "head -c 1 ", "test -e "})
    {
        EXPECT_NE(Outside(attempt + Document()).Code, 0) << attempt;
    }
    EXPECT_THAT(Outside("ls '" + volume->Sandbox().string() + "'").Output, HasSubstr("Permission denied"));
}

TEST_P(LiveProcesses, AProgramIsNotTakenForAnotherByItsName)
{
    const std::string parent = (volume->Folder() / "launch").string();
    const std::string child = " -c 'cat " + Document() + "; true'";
    ASSERT_EQ(Outside("'" + parent + "' -c \"bash" + std::string(" -c 'cat ") + Document() + "; true'; true\"").Output,
        "secret\n");
    const std::string other = "'" + parent + " (deleted)'";
    const Outcome outcome = Outside("cp /bin/bash " + other + "; " + other + " -c \"bash" + child + "; true\"");
    EXPECT_THAT(outcome.Output, HasSubstr("Permission denied"));
    EXPECT_THAT(outcome.Output, Not(HasSubstr("secret")));
    // One that was deleted is still itself.
    EXPECT_EQ(Outside("cp '" + parent + "' kept; '" + parent + "' -c \"rm '" + parent + "'; bash" + child +
                      "; true\"; mv kept '" + parent + "'")
                  .Output,
        "secret\n");
}

TEST_P(LiveProcesses, AnOpenFileSpeaksForItsOpenerAlone)
{
    const std::string shell = CopyOfShell("editor");
    ASSERT_EQ(volume->Agent("process add " + Pattern(shell)).Code, 0);
    const Outcome outcome = Outside(shell + " -c 'exec 3< " + Document() +
                                    "; [ -s /proc/self/fd/3 ] && echo has size\n"
                                    "stat -L /proc/self/fd/3; exec stat -L /proc/self/fd/3'");
    EXPECT_EQ(outcome.Output, "has size\n"
                              "stat: cannot statx '/proc/self/fd/3': Permission denied\n"
                              "stat: cannot statx '/proc/self/fd/3': Permission denied\n");
}

TEST_P(LiveProcesses, AProtectedFileIsForItsProcessOnly)
{
    ASSERT_EQ(Outside("echo open > mount/notes; cat mount/notes").Output, "open\n");
    const Outcome outcome =
        Outside(volume->AgentCommand() + " protect add $$ 'S:\\notes' > /dev/null; "
                                         "read line < mount/notes; echo \"got $line\"; cat mount/notes");
    EXPECT_THAT(outcome.Output, HasSubstr("got open\n"));
    EXPECT_THAT(outcome.Output, HasSubstr("Permission denied"));
}

TEST_P(LiveProcesses, TheAgentSeesRealProcessIds)
{
    const Outcome outcome = volume->Inside(
        volume->AgentCommand() + " under-sandbox $$; echo $$; " + volume->AgentCommand() + " pids; true");
    EXPECT_THAT(outcome.Output, HasSubstr("yes\n"));
    const std::string id = outcome.Output.substr(4, outcome.Output.find('\n', 4) - 4);
    EXPECT_THAT(outcome.Output.substr(5 + id.size()), HasSubstr(id + "\n"));
    EXPECT_THAT(Outside(volume->AgentCommand() + " under-sandbox $$").Output, HasSubstr("no\n"));
}

INSTANTIATE_TEST_SUITE_P(Native, LiveProcesses, testing::Values(false));
#ifdef LIVE_TESTS_WITH_IMAGE
INSTANTIATE_TEST_SUITE_P(Image, LiveProcesses, testing::Values(true));
#endif
}
