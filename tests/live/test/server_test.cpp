// The server's life: how it starts and ends, what it keeps, what it refuses.
#include "tests/live/test/live_fixture.h"

#include <gmock/gmock.h>

#include <csignal>
#include <fstream>
#include <unistd.h>

namespace
{
namespace fs = std::filesystem;
using live_test::Outcome;
using testing::HasSubstr;

class LiveServer : public live_test::LiveTest
{
protected:
    void SetUp() override { Serve("", "--registry registry.reg"); }

    std::string Registry() const
    {
        std::ifstream file(volume->Folder() / "registry.reg");
        return {std::istreambuf_iterator<char>(file), {}};
    }
};

TEST_F(LiveServer, ProtectionsAreKeptInTheRegistryFile)
{
    ASSERT_EQ(Outside("echo mine > mount/notes").Code, 0);
    ASSERT_EQ(volume->Agent("protect add 1 'S:\\notes'").Code, 0);
    EXPECT_THAT(Outside("cat mount/notes").Output, HasSubstr("Permission denied"));
    volume->Remount();
    // The process that it was for is another one now, so it is for nobody.
    EXPECT_THAT(Registry(), HasSubstr("\"ProtectionFiles\"=hex(7):"));
    EXPECT_THAT(Outside("cat mount/notes").Output, HasSubstr("Permission denied"));
}

// Whatever it was doing when it was killed.
TEST_F(LiveServer, WhatWasSynchronizedSurvivesAKill)
{
    const std::string work = R"x(
        i=0
        while :; do
            i=$((i + 1))
            seq $((i % 997)) > file$((i % 7)); sync file$((i % 7))
            cp file$((i % 7)) whole$((i % 7)).new; sync whole$((i % 7)).new; mv whole$((i % 7)).new whole$((i % 7))
            seq 3 >> file$(((i + 3) % 7)); truncate -s -5 file$(((i + 5) % 7)) 2> /dev/null || true
        done)x";
    for (int round = 0; round < 4; ++round)
    {
        ASSERT_EQ(volume
                      ->Inside("seq 100000 > before; truncate -s 123457 before; sync before; echo " +
                               std::to_string(round) + " > round; sync round")
                      .Code,
            0);
        // It is killed in the middle of work, which ends with the volume.
        const std::string script = "for n in 0 1 2 3 4 5 6; do seq 5 > file$n; done; n=0\n"
                                   "(while [ $n -lt " +
                                   std::to_string(40 + 37 * round) +
                                   " ]; do n=$((n + 1)); seq $n > file; sync file; done; kill -9 " +
                                   std::to_string(volume->Server()) + ") &\n" + work;
        const Outcome outcome = volume->Inside(script);
        EXPECT_NE(outcome.Code, 0) << outcome.Output;
        volume->Kill();
        volume->Start();
        EXPECT_EQ(volume->Inside("seq 100000 | head -c 123457 | cmp - before || true; cat round").Output,
            std::to_string(round) + "\n");
        // Each whole one is a list of numbers from 1 on, as long as it may be.
        const Outcome whole = volume->Inside("for file in whole? file; do seq $(wc -l < $file) | cmp - $file; done");
        EXPECT_EQ(whole.Code, 0) << whole.Output;
    }
}

TEST_F(LiveServer, OpenFilesEndWithTheServer)
{
    // A program that has the volume busy does not hold up the end.
    const Outcome outcome = Outside("exec 3> mount/open; echo kept >&3; kill " + std::to_string(volume->Server()) +
                                    "; while [ -e mount/open ]; do :; done; true");
    EXPECT_EQ(outcome.Code, 0) << outcome.Output;
    EXPECT_EQ(volume->End(), 0) << volume->Log();
    EXPECT_EQ(volume->Outside("cat store/open", volume->Folder()).Output, "kept\n");
}

TEST_F(LiveServer, UnmountingEndsIt)
{
    ASSERT_EQ(volume->Inside("echo secret > document").Code, 0);
    EXPECT_EQ(Outside("fusermount3 -u mount").Code, 0);
    EXPECT_EQ(volume->End(0), 0) << volume->Log();
    EXPECT_THAT(volume->Log(), HasSubstr("left behind: nothing\n"));
}

TEST_F(LiveServer, AnInterruptEndsIt)
{
    ASSERT_EQ(volume->Inside("echo secret > document").Code, 0);
    EXPECT_EQ(volume->End(SIGINT), 0) << volume->Log();
    EXPECT_THAT(volume->Log(), HasSubstr("left behind: nothing\n"));
}

// Without the rights of root: mounted by fusermount3, and every file is the user's own.
TEST_F(LiveServer, AnOrdinaryUserCanServeOne)
{
    if (geteuid() != 0)
    {
        GTEST_SKIP() << "only root can act as somebody else; as it is, all these tests run as an ordinary user";
    }
    std::ofstream(volume->Folder() / "steps") << R"x(
        mkdir store mount
        ./tarnhost --daemon --store store --mount mount --socket control --log log
        agent() { ./tarnctl --socket control "$@" > answer || { cat answer; exit 1; }; }
        head -c 33 /dev/urandom > key; agent key set --from-file key
        agent parent add "C:${PWD//\//\\}\launch"; agent start
        ./launch -c 'bash -ec "cd mount/Sandbox; umask 022; echo secret > document; chmod 640 document
                     mkdir folder; mv document folder; cat folder/document; stat -c %a:%u:%g folder/document"; true'
        cat mount/Sandbox/folder/document 2>&1 || true
        fusermount3 -u mount; while ! grep -q 'left behind' log; do :; done; grep -o 'left behind: .*' log
        stat -c %a:%s store/Sandbox/folder/document; grep -c secret store/Sandbox/folder/document || true)x";
    constexpr int NoDevice = 77;
    // The device is everybody's on most machines; here it is so at least for this test.
    const Outcome outcome = Outside(R"x(
        mkdir user; cp steps ')x" TARNHOST "' '" TARNCTL R"x(' user; cp /bin/bash user/launch
        chown -R 65534:65534 user; chmod 711 .; cd user
        unshare -m true || exit 77
        exec unshare -m bash -c '
            as_user() { setpriv --reuid=65534 --regid=65534 --clear-groups "$@"; }
            mknod -m 666 ../fuse c 10 229 && mount --bind ../fuse /dev/fuse && as_user bash -c ": <> /dev/fuse" || exit 77
            as_user bash -e steps')x");
    if (outcome.Code == NoDevice)
    {
        GTEST_SKIP() << "an ordinary user cannot be given the device here: " << outcome.Output;
    }
    EXPECT_EQ(outcome.Output, "secret\n640:65534:65534\n"
                              "cat: mount/Sandbox/folder/document: Permission denied\n"
                              "left behind: nothing\n640:7\n0\n");
}

TEST_F(LiveServer, InTheBackgroundItReturnsWhenTheVolumeCanBeUsed)
{
    const Outcome outcome =
        Outside("mkdir store2 mount2; " TARNHOST " --daemon --store store2 --mount mount2 --socket control2 --log log2 "
                "--system 10.0; echo text > mount2/file; cat mount2/file; fusermount3 -u mount2; "
                "while ! grep -q 'left behind' log2; do :; done; grep -o 'left behind: .*' log2; cat store2/file");
    EXPECT_EQ(outcome.Output, "text\nleft behind: nothing\ntext\n");
}

TEST_F(LiveServer, AFullStoreIsToldToTheWriter)
{
    if (Outside("mkdir full mount3; mount -t tmpfs -o size=8m none full").Code != 0)
    {
        GTEST_SKIP() << "no file system of its own can be mounted here";
    }
    const Outcome outcome = Outside(TARNHOST
        " --daemon --store full --mount mount3 --socket control3 --log log3\n"
        "echo before > mount3/small\n"
        "fill() { { dd if=/dev/zero of=mount3/big bs=1M count=20 conv=fsync || true; } 2>&1 | grep -o 'No space.*'; }\n"
        "fill\n"
        "rm mount3/big; echo after >> mount3/small; cat mount3/small\n"
        "{ fallocate -l 20M mount3/more || true; } 2>&1 | grep -o 'No space left on device'; rm -f mount3/more\n"
        "fallocate -l 4M mount3/kept; fallocate -n -l 2M mount3/small; stat -c %s mount3/kept mount3/small\n"
        "fill\n"
        "dd if=/dev/zero of=mount3/kept bs=1M count=4 conv=notrunc,fsync 2> /dev/null && echo kept; rm mount3/big\n"
        "fusermount3 -u mount3; while ! grep -q 'left behind' log3; do :; done; grep -o 'left behind: .*' log3\n"
        "cat full/small");
    EXPECT_EQ(outcome.Output, "No space left on device\nbefore\nafter\nNo space left on device\n4194304\n13\n"
                              "No space left on device\nkept\nleft behind: nothing\nbefore\nafter\n");
    Outside("umount full");
}

TEST_F(LiveServer, WhatItCannotDoItSaysAtOnce)
{
    const std::string server = TARNHOST;
    const auto refuse = [&](const std::string& arguments, int code, const std::string& text)
    {
        const Outcome outcome = Outside(server + " " + arguments);
        EXPECT_EQ(outcome.Code, code) << arguments;
        EXPECT_THAT(outcome.Output, HasSubstr(text)) << arguments;
    };
    fs::create_directory(volume->Folder() / "other");
    fs::create_directory(volume->Folder() / "place");
    std::ofstream(volume->Folder() / "broken.sys") << "MZ";
    std::ofstream(volume->Folder() / "broken.reg") << "nonsense\n";
    refuse("", 2, "--store");
    refuse("--store nowhere --mount place", 2, "nowhere: no such folder");
    refuse("--store other --mount other", 2, "lie within each other");
    refuse("--store other --mount place --system 5.1", 2, "--system");
    refuse("--store other --mount place --socket control2 --driver broken.sys", 1, "broken.sys: ");
    refuse("--store other --mount place --socket control2 --registry broken.reg", 1, "broken.reg");
    refuse("--store other --mount place --socket control", 1, "control");
    EXPECT_EQ(Outside("ls place").Output, "");
}
}
