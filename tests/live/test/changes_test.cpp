// What programs meet while others change, replace and remove the same files.
#include "tests/live/test/live_fixture.h"

#include <fstream>

namespace
{
using live_test::Outcome;

class LiveChanges : public live_test::LiveTest
{
protected:
    void SetUp() override { Serve(); }
};

// What the kernel writes back while a program makes room must not be cut off.
TEST_F(LiveChanges, MakingRoomCutsNothingOffThatIsWrittenMeanwhile)
{
    EXPECT_EQ(volume->Inside(ROOM_PROGRAM " file 1500").Output, "0 lost\n");
}

// A program that looks a name up has nothing open yet, as with O_PATH, when another one takes the name away. What it
// opens then is the file that it found. The host's kernel sets times on such a file as well, and remembers for the next
// who closes it when that fails.
TEST_F(LiveChanges, WhatWasFoundIsOpenedWhateverBecameOfItsName)
{
    EXPECT_EQ(volume
                  ->Inside("for name in removed replaced; do echo $name > $name; ln $name $name.kept; done\n"
                           "echo alone > alone; mkdir folder")
                  .Code,
        0);
    // Afterwards the host's kernel knows no name that it is not told here.
    volume->Remount();
    const Outcome outcome = volume->Inside(R"x(python3 - << 'END'
import os
def take_away(name, how):
    found = os.open(name, os.O_PATH)
    how(name)
    return "/proc/self/fd/%d" % found
def replace(name):
    open("new", "w").close()
    os.rename("new", name)
for name, how in (("removed", os.unlink), ("replaced", replace)):
    take_away(name, how)
    file = os.open(name + ".kept", os.O_WRONLY | os.O_APPEND)
    os.write(file, b" and more")
    os.fsync(file)
    os.close(file)
for name in ("alone", "replaced"):
    path = take_away(name, replace)
    print(os.stat(path).st_nlink, end=" ")
    with open(path, "a+") as file:
        file.write("%s again\n" % name)
        file.seek(0)
        print(file.read(), end="")
    os.truncate(path, 4)
    os.utime(path, (1, 2))
    info = os.stat(path)
    print(info.st_size, info.st_mtime)
os.close(os.open(take_away("folder", os.rmdir), os.O_RDONLY))
print(sorted(os.listdir(".")))
END
        cat removed.kept replaced.kept)x");
    EXPECT_EQ(outcome.Output, "0 alone\nalone again\n4 2.0\n0 replaced again\n4 2.0\n"
                              "['alone', 'removed.kept', 'replaced', 'replaced.kept']\n"
                              "removed\n and morereplaced\n and more");
}

// Who may open it is judged by the name that it had.
TEST_F(LiveChanges, AFileWithoutANameStaysInside)
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
TEST_F(LiveChanges, NamesThatChangeLeadToOneFileOrTheOther)
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
}
