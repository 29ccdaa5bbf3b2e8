// What programs find: names, kinds, owners, rights, and the border of the sandbox.
#include "tests/live/test/live_fixture.h"

#include <gmock/gmock.h>

#include <fstream>
#include <unistd.h>

namespace
{
namespace fs = std::filesystem;
using live_test::Outcome;
using testing::HasSubstr;
using testing::Not;

class LiveFiles : public live_test::LiveTest
{
protected:
    void SetUp() override { Serve("", "--registry registry.reg"); }
};

TEST_F(LiveFiles, NamesAreWhatLinuxProgramsExpect)
{
    const Outcome outcome = volume->Inside(R"x(
        echo lower > name; echo upper > Name; cat name Name
        for odd in 'a:b' 'a*b?' '<"|>' 'back\slash' 'end ' 'end.' '...' 'naïve' '日本語' '🙂'; do echo "$odd" > "$odd"; done
        ls -A | LC_ALL=C sort | tr '\n' '/'; echo
        for odd in *; do [ -f "$odd" ] && cat "$odd" > /dev/null; done
        rm -- *
        touch $'bad\xff' 2>&1 || echo refused
        touch "$(printf 'x%.0s' $(seq 256))" 2>&1 || echo refused
        touch "$(printf 'x%.0s' $(seq 255))"; ls | wc -c)x");
    EXPECT_EQ(outcome.Code, 0) << outcome.Output;
    EXPECT_THAT(outcome.Output, testing::StartsWith("lower\nupper\n"));
    for (const char* odd :
        {"/a:b/", "/a*b?/", "/<\"|>/", "/back\\slash/", "/end /", "/end./", "/.../", "/naïve/", "/日本語/", "/🙂/"})
    {
        EXPECT_THAT("/" + outcome.Output.substr(12), HasSubstr(odd));
    }
    EXPECT_THAT(outcome.Output, HasSubstr("Invalid or incomplete multibyte"));
    EXPECT_THAT(outcome.Output, HasSubstr("File name too long"));
    EXPECT_THAT(outcome.Output, testing::EndsWith("refused\n256\n"));
}

TEST_F(LiveFiles, AListingTellsWhatThingsAre)
{
    const Outcome outcome = volume->Inside("mkdir folder; touch file; ln -s file link; mkfifo pipe\n"
                                           "for type in d f l p; do find . -mindepth 1 -type $type; done");
    EXPECT_EQ(outcome.Output, "./folder\n./file\n./link\n./pipe\n");
}

TEST_F(LiveFiles, OwnersAndModesCount)
{
    EXPECT_EQ(volume
                  ->Inside("umask 022; echo x > file; mkdir folder; stat -c '%a %u' file folder; chown 12:34 file; "
                           "chmod 4755 file; stat -c '%a %u %g' file")
                  .Output,
        "644 0\n755 0\n4755 12 34\n");
}

TEST_F(LiveFiles, WhoeverIsNotTrustedTakesAFilesPowersAwayByChangingIt)
{
    if (geteuid() != 0)
    {
        GTEST_SKIP() << "only root can act as somebody else";
    }
    const Outcome outcome = Outside(R"x(
        chmod 711 .; cd mount
        other() { setpriv --reuid=65534 --regid=65534 --clear-groups bash -c "$1"; }
        for file in written appended emptied shortened; do echo text > $file; chown 12:34 $file; chmod 6777 $file; done
        echo x > mine; chmod 600 mine; cp written roots; chmod 6777 roots
        other 'echo more > written'; other 'echo more >> appended'; other ': > emptied'; other 'truncate -s 2 shortened'
        echo more >> roots
        stat -c '%n %a' written appended emptied shortened roots
        other 'cat mine' || true; other 'echo x > mine' || true; other 'touch new' || true; cat mine)x");
    EXPECT_EQ(outcome.Code, 0) << outcome.Output;
    EXPECT_THAT(
        outcome.Output, testing::StartsWith("written 777\nappended 777\nemptied 777\nshortened 777\nroots 6777\n"));
    EXPECT_THAT(outcome.Output, HasSubstr("cat: mine: Permission denied"));
    EXPECT_THAT(outcome.Output, HasSubstr("mine: Permission denied\n"));
    EXPECT_THAT(outcome.Output, HasSubstr("cannot touch 'new': Permission denied"));
    EXPECT_THAT(outcome.Output, testing::EndsWith("\nx\n"));
}

// What was enciphered is no use outside, nor would plain bytes be inside: a program that moves a file copies it.
TEST_F(LiveFiles, MovingOverTheSandboxBorderCopies)
{
    ASSERT_EQ(Outside("echo from outside > mount/plain").Code, 0);
    const Outcome outcome = volume->Inside(R"x(
        echo from inside > document; mkdir folder; echo deep > folder/file
        mv document folder ..; mv ../plain .; cat plain ../document ../folder/file; ls
        ln plain ../link 2>&1 || true; ln ../document link 2>&1 || true; ls ..)x");
    EXPECT_EQ(outcome.Code, 0) << outcome.Output;
    EXPECT_THAT(outcome.Output, testing::StartsWith("from outside\nfrom inside\ndeep\nplain\n"));
    EXPECT_THAT(outcome.Output, HasSubstr("'../link' => 'plain': Invalid cross-device link\n"));
    EXPECT_THAT(outcome.Output, HasSubstr("'link' => '../document': Invalid cross-device link\n"));
    EXPECT_THAT(outcome.Output, testing::EndsWith("Sandbox\ndocument\nfolder\n"));
    volume->Remount();
    EXPECT_EQ(
        Outside("cat mount/document mount/folder/file store/document").Output, "from inside\ndeep\nfrom inside\n");
    EXPECT_EQ(Outside("stat -c %s store/Sandbox/plain").Output, "13\n");
    EXPECT_THAT(Outside("cat store/Sandbox/plain").Output, Not(HasSubstr("from outside")));
}

// A folder that the sandbox lies in would take it along, with what the kernel has of it.
TEST_F(LiveFiles, FoldersAboveTheSandboxDoNotMove)
{
    ASSERT_EQ(volume->End(), 0);
    std::ofstream(volume->Folder() / "registry.reg")
        << "Windows Registry Editor Version 5.00\r\n\r\n"
           "[HKEY_LOCAL_MACHINE\\SYSTEM\\CurrentControlSet\\Services\\Tarnveil]\r\n"
           "\"SandboxPath\"=\"\\\\Device\\\\HarddiskVolume2\\\\users\\\\box\"\r\n";
    volume->Start();
    const fs::path box = volume->Mount() / "users" / "box";
    EXPECT_EQ(volume->Inside("echo secret > document; cat document", box).Output, "secret\n");
    const Outcome outcome = Outside("mv mount/users mount/moved; cat mount/moved/box/document; ls mount");
    EXPECT_THAT(outcome.Output, Not(HasSubstr("secret\n")));
    EXPECT_EQ(volume->Inside("cat document", box).Output, "secret\n");
}
}
