// The server's life: how it starts and ends, what it keeps, what it refuses.
#include "tests/live/test/live_volume.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <fstream>
#include <memory>
#include <unistd.h>

namespace
{
namespace fs = std::filesystem;
using live_test::LiveVolume;
using live_test::Outcome;
using testing::HasSubstr;
using testing::Not;

class LiveServer : public testing::Test
{
protected:
    void SetUp() override
    {
        std::string reason;
        if (!live_test::CanMount(&reason))
        {
            GTEST_SKIP() << reason;
        }
        volume = std::make_unique<LiveVolume>("", "--registry registry.reg");
    }
    void TearDown() override
    {
        if (volume && volume->Server() > 0)
        {
            EXPECT_EQ(volume->End(), 0) << volume->Log();
        }
    }

    std::string Registry() const
    {
        std::ifstream file(volume->Folder() / "registry.reg");
        return {std::istreambuf_iterator<char>(file), {}};
    }
    Outcome Outside(const std::string& script) const { return volume->Outside(script, volume->Folder()); }

    std::unique_ptr<LiveVolume> volume;
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
        ASSERT_EQ(volume->Inside("seq 100000 > before; truncate -s 123457 before; sync before; echo " +
                                 std::to_string(round) + " > round; sync round")
                      .Code,
            0);
        // It is killed in the middle of work, which ends with the volume.
        const std::string script = "for n in 0 1 2 3 4 5 6; do seq 5 > file$n; done; n=0\n"
                                   "(while [ $n -lt " + std::to_string(40 + 37 * round) +
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
    // The device is everybody's on most machines; here it is so at least for this test.
    const std::string asUser =
        "chmod 711 .; cd user; exec unshare -m bash -ec '[ -e ../fuse ] || mknod -m 666 ../fuse c 10 229\n"
        "mount --bind ../fuse /dev/fuse; exec setpriv --reuid=65534 --regid=65534 --clear-groups bash -e ";
    if (Outside("mkdir user; echo \": <> /dev/fuse\" > reach\n" + asUser + "../reach'").Code != 0)
    {
        GTEST_SKIP() << "an ordinary user cannot be given the device here";
    }
    const Outcome outcome =
        Outside("cp steps " TARNHOST " " TARNCTL " user; cp /bin/bash user/launch; chown -R 65534:65534 user\n" +
                asUser + "steps'");
    EXPECT_EQ(outcome.Output, "secret\n640:65534:65534\n"
                              "cat: mount/Sandbox/folder/document: Permission denied\n"
                              "left behind: nothing\n640:7\n0\n");
}

TEST_F(LiveServer, InTheBackgroundItReturnsWhenTheVolumeCanBeUsed)
{
    const Outcome outcome = Outside(
        "mkdir store2 mount2; " TARNHOST " --daemon --store store2 --mount mount2 --socket control2 --log log2 "
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
    const Outcome outcome = Outside(
        TARNHOST " --daemon --store full --mount mount3 --socket control3 --log log3\n"
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

TEST_F(LiveServer, NamesAreWhatLinuxProgramsExpect)
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
    for (const char* odd : {"/a:b/", "/a*b?/", "/<\"|>/", "/back\\slash/", "/end /", "/end./", "/.../", "/naïve/",
                            "/日本語/", "/🙂/"})
    {
        EXPECT_THAT("/" + outcome.Output.substr(12), HasSubstr(odd));
    }
    EXPECT_THAT(outcome.Output, HasSubstr("Invalid or incomplete multibyte"));
    EXPECT_THAT(outcome.Output, HasSubstr("File name too long"));
    EXPECT_THAT(outcome.Output, testing::EndsWith("refused\n256\n"));
}

// The kernel's cache must not be asked for what was decided for another program, and the owner's rights hold as well.
TEST_F(LiveServer, OwnersAndModesCount)
{
    EXPECT_EQ(volume->Inside("umask 022; echo x > file; mkdir folder; stat -c '%a %u' file folder; chown 12:34 file; "
                             "chmod 4755 file; stat -c '%a %u %g' file")
                  .Output,
        "644 0\n755 0\n4755 12 34\n");
}
TEST_F(LiveServer, WhoeverIsNotTrustedTakesAFilesPowersAwayByChangingIt)
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
    EXPECT_THAT(outcome.Output,
        testing::StartsWith("written 777\nappended 777\nemptied 777\nshortened 777\nroots 6777\n"));
    EXPECT_THAT(outcome.Output, HasSubstr("cat: mine: Permission denied"));
    EXPECT_THAT(outcome.Output, HasSubstr("mine: Permission denied\n"));
    EXPECT_THAT(outcome.Output, HasSubstr("cannot touch 'new': Permission denied"));
    EXPECT_THAT(outcome.Output, testing::EndsWith("\nx\n"));
}

// What was enciphered is no use outside, nor would plain bytes be inside: a program that moves a file copies it.
TEST_F(LiveServer, MovingOverTheSandboxBorderCopies)
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
    EXPECT_EQ(Outside("cat mount/document mount/folder/file store/document").Output,
        "from inside\ndeep\nfrom inside\n");
    EXPECT_EQ(Outside("stat -c %s store/Sandbox/plain").Output, "13\n");
    EXPECT_THAT(Outside("cat store/Sandbox/plain").Output, Not(HasSubstr("from outside")));
}
// What the kernel writes back while a program makes room must not be cut off.
TEST_F(LiveServer, MakingRoomCutsNothingOffThatIsWrittenMeanwhile)
{
    std::ofstream(volume->Folder() / "race.c") << R"x(
        #define _GNU_SOURCE
        #include <fcntl.h>
        #include <pthread.h>
        #include <stdio.h>
        #include <string.h>
        #include <time.h>
        #include <unistd.h>
        enum { Size = 256 * 1024, Rounds = 1500 };
        static char data[Size], read_back[Size];
        static void *write_out(void *file) { sync_file_range(*(int *)file, 0, Size, SYNC_FILE_RANGE_WRITE); return 0; }
        static void spin(long nanoseconds)
        {
            struct timespec begin, now;
            clock_gettime(CLOCK_MONOTONIC, &begin);
            do
                clock_gettime(CLOCK_MONOTONIC, &now);
            while ((now.tv_sec - begin.tv_sec) * 1000000000L + now.tv_nsec - begin.tv_nsec < nanoseconds);
        }
        int main(void)
        {
            int lost = 0;
            memset(data, 'd', Size);
            for (int i = 0; i < Rounds; ++i)
            {
                int file = open("f", O_RDWR | O_CREAT | O_TRUNC, 0600);
                pthread_t writer;
                pwrite(file, data, Size, 0);
                pthread_create(&writer, 0, write_out, &file);
                spin(i % 100 * 5000);
                fallocate(file, 0, 0, Size / 2 + 4096);
                pthread_join(writer, 0);
                fsync(file);
                posix_fadvise(file, 0, 0, POSIX_FADV_DONTNEED);
                lost += pread(file, read_back, Size, 0) != Size || memcmp(data, read_back, Size) != 0;
                close(file);
            }
            printf("%d lost\n", lost);
            return 0;
        })x";
    ASSERT_EQ(Outside("cc -O2 -pthread race.c -o race").Code, 0);
    EXPECT_EQ(volume->Inside("../../race").Output, "0 lost\n");
}

// The host's kernel sets times on a file whose name just went, and tells whoever closes it next that this failed.
TEST_F(LiveServer, AFileThatIsOpenOrLinkedOutlivesItsName)
{
    EXPECT_EQ(volume->Inside("echo linked > a; ln a b; echo open > file; mkdir folder").Code, 0);
    volume->Remount();
    const Outcome outcome = volume->Inside(R"x(python3 - << 'END'
import os
os.unlink("b")
fd = os.open("a", os.O_WRONLY | os.O_APPEND)
os.write(fd, b"more\n")
os.fsync(fd)
os.close(fd)
print(open("a").read(), end="")
fd = os.open("file", os.O_RDWR)
link = "/proc/self/fd/%d" % fd
os.unlink("file")
again = os.open(link, os.O_RDWR | os.O_APPEND)
os.write(again, b"again\n")
os.close(again)
os.truncate(link, 9)
os.utime(link, (1, 2))
print(os.read(fd, 100), os.fstat(fd).st_size, os.fstat(fd).st_mtime, os.fstat(fd).st_nlink)
os.close(fd)
fd = os.open("folder", os.O_RDONLY)
os.rmdir("folder")
os.close(os.open("/proc/self/fd/%d" % fd, os.O_RDONLY))
os.close(fd)
print(sorted(os.listdir(".")))
END)x");
    EXPECT_EQ(outcome.Output, "linked\nmore\nb'open\\nagai' 9 2.0 0\n['a']\n");
}

// Who may open it is judged by the name that it had.
TEST_F(LiveServer, AFileWithoutANameStaysInside)
{
    std::ofstream(volume->Folder() / "program.sh") << R"x(
        cd mount/Sandbox
        echo secret > document; echo other > new; exec 3< document; mv new document
        cat /proc/$$/fd/3 document; echo $$ > ../../id.new; mv ../../id.new ../../id
        while [ ! -e ../../judged ]; do sleep 0.01; done
        cat /proc/$$/fd/3)x";
    const Outcome outcome = Outside(R"x(
        ./launch -c "bash program.sh; exit \$?" > inside &
        while [ ! -e id ] && kill -0 $! 2> /dev/null; do sleep 0.01; done
        cat /proc/$(cat id)/fd/3 2>&1 | grep -o 'Permission denied' || true
        touch judged; wait; cat inside)x");
    EXPECT_EQ(outcome.Output, "Permission denied\nsecret\nother\nsecret\n");
}

// One program replaces a file and two exchange others, while programs read and write them by name.
TEST_F(LiveServer, NamesThatChangeLeadToOneFileOrTheOther)
{
    const Outcome outcome = volume->Inside(R"x(python3 - << 'END'
import ctypes, os, threading
libc = ctypes.CDLL(None, use_errno=True)
names = [b"x", b"y"]
for name, byte in ((b"x", b"X"), (b"y", b"Y"), (b"config", b"C")):
    with open(name, "wb") as file:
        file.write(byte * 10000)
inodes = {os.stat(name).st_ino: name.upper() for name in names}
ended = False
wrong = []
def guarded(work):
    def run():
        while not ended and not wrong:
            try:
                work()
            except Exception as error:
                wrong.append(work.__name__ + ": " + str(error))
    return run
def exchange():
    if libc.renameat2(-100, b"x", -100, b"y", 2) != 0:
        raise OSError(ctypes.get_errno(), "exchange")
def replace():
    with open("new", "wb") as file:
        file.write(b"C" * 10000)
    os.rename("new", "config")
def read():
    for name in (b"x", b"y"):
        fd = os.open(name, os.O_RDONLY)
        info = os.fstat(fd)
        text = os.read(fd, 20000)
        os.posix_fadvise(fd, 0, 0, os.POSIX_FADV_DONTNEED)
        os.close(fd)
        if text != inodes[info.st_ino] * 10000:
            wrong.append("%s: inode %d has %r and %d bytes" % (name, info.st_ino, text[:1], len(text)))
def look():
    if os.stat("config").st_size != 10000:
        wrong.append("config has no bytes")
    with open("config", "rb") as file:
        if file.read() != b"C" * 10000:
            wrong.append("config has others")
threads = [threading.Thread(target=guarded(work)) for work in (exchange, replace, read, read, look)]
for thread in threads:
    thread.start()
threading.Event().wait(3)
ended = True
for thread in threads:
    thread.join()
print(wrong)
END)x");
    EXPECT_EQ(outcome.Output, "[]\n");
}

TEST_F(LiveServer, AListingTellsWhatThingsAre)
{
    const Outcome outcome = volume->Inside("mkdir folder; touch file; ln -s file link; mkfifo pipe\n"
                                           "for type in d f l p; do find . -mindepth 1 -type $type; done");
    EXPECT_EQ(outcome.Output, "./folder\n./file\n./link\n./pipe\n");
}

// A folder that the sandbox lies in would take it along, with what the kernel has of it.
TEST(LiveServerBorder, FoldersAboveTheSandboxDoNotMove)
{
    std::string reason;
    if (!live_test::CanMount(&reason))
    {
        GTEST_SKIP() << reason;
    }
    LiveVolume volume("", "--registry registry.reg");
    ASSERT_EQ(volume.End(), 0);
    std::ofstream(volume.Folder() / "registry.reg")
        << "Windows Registry Editor Version 5.00\r\n\r\n"
           "[HKEY_LOCAL_MACHINE\\SYSTEM\\CurrentControlSet\\Services\\Tarnveil]\r\n"
           "\"SandboxPath\"=\"\\\\Device\\\\HarddiskVolume2\\\\users\\\\box\"\r\n";
    volume.Start();
    const fs::path box = volume.Mount() / "users" / "box";
    EXPECT_EQ(volume.Inside("echo secret > document; cat document", box).Output, "secret\n");
    const Outcome outcome = volume.Outside("mv mount/users mount/moved; cat mount/moved/box/document; ls mount",
        volume.Folder());
    EXPECT_THAT(outcome.Output, Not(HasSubstr("secret\n")));
    EXPECT_EQ(volume.Inside("cat document", box).Output, "secret\n");
    EXPECT_EQ(volume.End(), 0) << volume.Log();
}
}
