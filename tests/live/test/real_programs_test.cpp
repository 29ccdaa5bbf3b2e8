// Programs that nobody here wrote, at work in the sandbox folder. Each does the same in an ordinary folder first, and
// what comes out must be equal.
#include "tests/live/test/live_fixture.h"

#include <cstdlib>

namespace
{
namespace fs = std::filesystem;
using live_test::LiveVolume;
using live_test::Outcome;

struct Work
{
    const char* Name;
    const char* Script;  // run in an empty folder
    const char* Results; // what it leaves that is the same each time: names for diff, with blanks between
};

// A source tree to work on: this project's own driver, its texts and its documents.
constexpr char SourceTree[] = TARNVEIL_SOURCES;

const Work Works[] = {
    {"CopiesATree", "cp -r \"$SOURCE/driver\" copy; find copy -type f | sort | wc -l > count", "copy count"},
    {"PacksAndUnpacks", R"x(
        tar -C "$SOURCE" --sort=name --mtime=@1 --owner=0 --group=0 -cf all.tar driver docs include
        mkdir out; tar -C out -xf all.tar
        tar -C out --sort=name --mtime=@1 --owner=0 --group=0 -czf again.tgz driver docs
        gzip -t again.tgz)x",
        "all.tar out"},
    {"KeepsARepository", R"x(
        export GIT_AUTHOR_DATE='2020-01-01T00:00:00Z' GIT_COMMITTER_DATE='2020-01-01T00:00:00Z' HOME="$PWD"
        git config --global user.name Tester; git config --global user.email tester@example.invalid
        git config --global init.defaultBranch main
        git init -q origin
        cp -r "$SOURCE/driver" "$SOURCE/docs" origin
        git -C origin add -A; git -C origin commit -qm first
        git clone -q origin clone
        for i in 1 2 3; do echo "line $i" >> clone/docs/testing.md; git -C clone commit -qam "change $i"; done
        git -C clone mv driver/core driver/centre; git -C clone commit -qm moved
        git -C clone fsck --strict
        git -C clone gc -q --aggressive --prune=now
        git -C clone fsck --strict
        git -C clone push -q origin HEAD:refs/heads/other
        git -C clone status --porcelain > status
        git -C clone log --format='%H %s' > history
        git -C clone archive HEAD | tar -x --one-top-level=archived)x",
        "status history archived clone/driver clone/docs"},
    {"KeepsADatabaseWithAJournal", R"x(
        { echo 'PRAGMA journal_mode=DELETE; CREATE TABLE t(id INTEGER PRIMARY KEY, name TEXT, body BLOB);'
          for i in $(seq 1500); do echo "INSERT INTO t(name,body) VALUES('row $i', zeroblob($((i % 700))));"; done
          for i in $(seq 500); do echo "BEGIN; UPDATE t SET name='changed $i' WHERE id=$((i * 3)); DELETE FROM t WHERE id=$((i * 3 + 1)); COMMIT;"; done
          echo 'VACUUM;'
        } | sqlite3 data.db
        sqlite3 data.db 'PRAGMA integrity_check' | tee check
        grep -qx ok check
        sqlite3 data.db .dump > dump)x",
        "dump check"},
    {"KeepsADatabaseWithAWriteAheadLog", R"x(
        { echo 'PRAGMA journal_mode=WAL; CREATE TABLE t(id INTEGER PRIMARY KEY, name TEXT, body BLOB);'
          for i in $(seq 2000); do echo "INSERT INTO t(name,body) VALUES('row $i', zeroblob($((i % 700))));"; done
        } | sqlite3 data.db
        (for i in $(seq 300); do sqlite3 -cmd '.timeout 20000' data.db "UPDATE t SET name='a $i' WHERE id=$i"; done) &
        (for i in $(seq 300); do sqlite3 -cmd '.timeout 20000' data.db "UPDATE t SET name='b $i' WHERE id=$((i + 1000))"; done) &
        wait
        sqlite3 data.db 'PRAGMA wal_checkpoint(TRUNCATE); PRAGMA integrity_check' | tail -n 1 | tee check
        grep -qx ok check
        sqlite3 data.db .dump > dump)x",
        "dump check"},
    {"BuildsAProgram", R"x(
        for i in 1 2 3 4 5 6; do
            printf '#include "all.h"\nint part%d(int x) { return x * %d; }\n' $i $i > part$i.c
            echo "int part$i(int x);" >> all.h
        done
        { echo '#include "all.h"'; echo '#include <stdio.h>'
          echo 'int main(void) { printf("%d\n", part1(1) + part2(2) + part3(3) + part4(4) + part5(5) + part6(6)); return 0; }'
        } > main.c
        printf 'OBJECTS = main.o part1.o part2.o part3.o part4.o part5.o part6.o\nprogram: $(OBJECTS)\n\tcc -o $@ $(OBJECTS)\n%%.o: %%.c all.h\n\tcc -O1 -c $<\n' > Makefile
        make -s -j2
        ./program > result
        grep -qx 91 result
        make -s -q)x",
        "result program part1.o main.o"},
    {"SavesAtomically", R"x(
        for i in $(seq 60); do
            seq $((i * 37)) > .document.tmp
            sync .document.tmp
            mv .document.tmp document
            [ "$(tail -n 1 document)" = $((i * 37)) ]
        done
        exec 3< document
        seq 5 > .document.tmp; mv .document.tmp document
        [ "$(tail -n 1 <&3)" = 2220 ]
        rm document
        seq 9 > document)x",
        "document"},
    {"MapsFiles", R"x(
        cat > map.py << 'END'
import mmap, os
with open('mapped', 'w+b') as f:
    f.truncate(100001)
    m = mmap.mmap(f.fileno(), 0)
    for i in range(0, 100001, 997):
        m[i:i+5] = (b'%06d' % i)[:5][:100001 - i].ljust(min(5, 100001 - i))
    m.flush()
    p = mmap.mmap(f.fileno(), 0, access=mmap.ACCESS_COPY)
    p[0:5] = b'never'
    assert m[0:5] == b'00000'
    os.ftruncate(f.fileno(), 50000)
    m.close(); p.close()
with open('mapped', 'rb') as f:
    data = f.read()
assert len(data) == 50000 and data[997:1002] == b'00099'
END
        python3 map.py)x",
        "mapped"},
    {"WritesPastTheCache", R"x(
        seq 200000 > plain; truncate -s 1000003 plain
        dd if=plain of=direct bs=4096 oflag=direct status=none
        dd if=plain of=large bs=256k oflag=direct status=none
        dd if=plain of=odd bs=1000 status=none
        dd if=plain of=odd bs=777 conv=notrunc seek=3 count=11 status=none
        dd if=plain of=sync bs=5000 oflag=dsync count=20 status=none
        dd if=plain of=direct bs=512 seek=1000 count=3 conv=notrunc oflag=direct status=none)x",
        "plain direct large odd sync"},
    {"Synchronizes", R"x(
        mkdir from; cp -r "$SOURCE/docs" "$SOURCE/include" from
        rsync -a from/ to/
        echo more >> from/docs/testing.md; rm -r from/include; ln -s docs from/link
        rsync -a --delete from/ to/
        rsync -ani --checksum --delete from/ to/ > left
        [ ! -s left ])x",
        "from to"},
    {"ZipsAndTests", R"x(
        cp -r "$SOURCE/docs" .
        zip -qr docs.zip docs; unzip -tq docs.zip
        mkdir out; unzip -q docs.zip -d out; diff -r docs out/docs)x",
        "docs out"},
    {"LinksAndAttributes", R"x(
        echo text > file; ln file hard; ln -s file soft; ln -s /nowhere/at/all dangling
        echo more >> hard; [ "$(cat file)" = "$(cat soft)" ]; [ "$(stat -c %h file)" = 2 ]
        chmod 640 file; [ "$(stat -c %a hard)" = 640 ]
        touch -d '2001-02-03 04:05:06.123456789 UTC' file; [ "$(stat -c %.9Y hard)" = 981173106.123456789 ]
        setfattr -n user.note -v value file; [ "$(getfattr --only-values -n user.note hard)" = value ]
        setfattr -x user.note file; getfattr -d file > attributes
        truncate -s 12345 file; [ "$(stat -c %s hard)" = 12345 ]; truncate -s 3 file
        fallocate -l 20000 file; [ "$(stat -c %s file)" = 20000 ]; fallocate -p -o 0 -l 2 file
        mkdir -p a/b; rmdir a/b; mv a c; mv -n file c/; ls -A > names; readlink soft dangling > targets
        touch 'a name: with <all> "of" it?|*\' ; ls c >> names; ls >> names
        df . > /dev/null
        ( flock -n 9; ! flock -n hard true ) 9< hard)x",
        "c/file hard names targets attributes"},
    {"Endures", R"x(
        stress-ng --temp-path . --quiet --timeout 4 --hdd 1 --hdd-bytes 8m --fallocate 1 --fallocate-bytes 4m --rename 1 --link 1 --dentry 1 --dentries 200 --seek 1 --utime 1 --mmap 1 --mmap-bytes 4m --mmap-file --verify
        ls -A | grep -v -e '^stress' -e '^left' > left || true)x",
        "left"},
};

std::string WithSource(const char* script)
{
    return "SOURCE='" + std::string(SourceTree) + "'\n" + script;
}

// The folder as programs see it now, copied out through a child of the parent.
Outcome CopyOut(const LiveVolume& volume, const std::string& from, const fs::path& to)
{
    return volume.Inside("mkdir -p '" + to.string() + "'; cp -a " + from + " '" + to.string() + "/'");
}

class RealPrograms : public live_test::LiveTest, public testing::WithParamInterface<bool>
{
protected:
    void SetUp() override { Serve(GetParam() ? TARNVEIL_IMAGE : ""); }

    fs::path Reference() const { return volume->Scratch(); }

    static void ExpectSuccess(const Outcome& outcome, const std::string& what)
    {
        EXPECT_EQ(outcome.Code, 0) << what << ":\n" << outcome.Output;
    }

    void ExpectSame(const Work& work, const std::string& when)
    {
        const std::string reference = (Reference() / work.Name).string();
        ExpectSuccess(volume->Inside("for name in " + std::string(work.Results) + "; do diff -r --no-dereference \"" +
                                     reference + "/$name\" \"" + work.Name + "/$name\"; done"),
            work.Name + (" " + when));
    }
};

TEST_P(RealPrograms, DoInTheSandboxWhatTheyDoElsewhere)
{
    for (const Work& work : Works)
    {
        SCOPED_TRACE(work.Name);
        fs::create_directory(Reference() / work.Name);
        ExpectSuccess(volume->Outside(WithSource(work.Script), Reference() / work.Name), "outside of the volume");
        ExpectSuccess(volume->Inside("mkdir " + std::string(work.Name)), "making the folder");
        ExpectSuccess(volume->Inside(WithSource(work.Script), volume->Sandbox() / work.Name), "in the sandbox");
        ExpectSame(work, "at once");
    }
    volume->Remount();
    EXPECT_EQ(live_test::FindPlainRun(Reference(), volume->SandboxStore()), "");
    for (const Work& work : Works)
    {
        ExpectSame(work, "after a remount");
    }

    // Whoever is outside gets nothing, and changes nothing.
    const Outcome before = Outside("find store -printf '%P %s %T@ %m\\n' | sort");
    for (const char* attempt :
        {"ls mount/Sandbox", "cat mount/Sandbox/SavesAtomically/document", "echo x > mount/Sandbox/new",
            "echo x >> mount/Sandbox/SavesAtomically/document", "rm mount/Sandbox/SavesAtomically/document",
            "mkdir mount/Sandbox/folder", "mv mount/Sandbox/SavesAtomically mount/gone", "rmdir mount/Sandbox",
            "touch mount/Sandbox/SavesAtomically/document", "chmod 777 mount/Sandbox/SavesAtomically/document",
            "truncate -s 0 mount/Sandbox/SavesAtomically/document", "stat mount/Sandbox/SavesAtomically/document",
            "ln mount/Sandbox/SavesAtomically/document mount/linked", "cp -r mount/Sandbox elsewhere"})
    {
        const Outcome outcome = Outside(attempt);
        EXPECT_NE(outcome.Code, 0) << attempt;
        EXPECT_NE(outcome.Output.find("Permission denied"), std::string::npos) << attempt << ": " << outcome.Output;
    }
    EXPECT_EQ(Outside("find store -printf '%P %s %T@ %m\\n' | sort").Output, before.Output);
}

TEST_P(RealPrograms, RandomOperationsAgreeWithAModel)
{
    const char* given = std::getenv("TARNVEIL_RANDOM_SEED");
    const char* operations = std::getenv("TARNVEIL_LIVE_OPERATIONS");
    const std::string seed = given != nullptr ? given : std::to_string(testing::UnitTest::GetInstance()->random_seed());
    for (const char* mode : {"buffered", "direct"})
    {
        const Outcome outcome = volume->Inside(std::string(RANDOM_FILE_PROGRAM) + " random-" + mode + " " + seed + " " +
                                               (operations != nullptr ? operations : "25000") + " " + mode);
        std::printf("%s", outcome.Output.c_str());
        ExpectSuccess(outcome, mode);
    }
    ExpectSuccess(CopyOut(*volume, "random-*", Reference()), "copying out");
    volume->Remount();
    ExpectSuccess(volume->Inside("diff random-buffered '" + (Reference() / "random-buffered").string() +
                                 "'; diff random-direct '" + (Reference() / "random-direct").string() + "'"),
        "after a remount");
    EXPECT_EQ(live_test::FindPlainRun(Reference(), volume->SandboxStore()), "");
}

INSTANTIATE_TEST_SUITE_P(Native, RealPrograms, testing::Values(false));
#ifdef LIVE_TESTS_WITH_IMAGE
INSTANTIATE_TEST_SUITE_P(Image, RealPrograms, testing::Values(true));
#endif
}
