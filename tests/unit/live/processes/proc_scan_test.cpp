// What /proc alone can tell.
#include "live/processes/process_tracker.h"

#include "hosted/ps/process_table.h"
#include "tests/unit/live/processes/fake_proc.h"
#include "tests/unit/live/processes/process_notes.h"

#include <gmock/gmock.h>

#include <algorithm>

using namespace hosted;
using testing::ElementsAre;
using testing::IsEmpty;

namespace
{
constexpr pid_t Init = 1;
constexpr pid_t Shell = 1000;
constexpr pid_t Editor = 1001;

HANDLE Id(ULONG_PTR value)
{
    return reinterpret_cast<HANDLE>(value);
}

class ProcScanTest : public testing::Test
{
protected:
    ProcScanTest()
    {
        proc_.Put({.Id = Init, .Image = init_, .StartTicks = 0});
        proc_.Put({.Id = Shell, .Parent = Init, .Image = shell_, .StartTicks = 100});
        tracker_ = std::make_unique<ProcessTracker>(TrackerOptions{
            .ImageName = Name, .UseConnector = false, .Proc = proc_.Path(), .ScanMilliseconds = 1'000'000'000});
    }

    // The file's own name, whatever folder the test has it in.
    static WideString Name(const std::string& path)
    {
        return L"\\Device\\HarddiskVolume1" + Widen("\\" + path.substr(path.rfind('/') + 1));
    }

    static std::string Created(const std::string& path) { return "+ " + Narrow(Name(path)); }

    // The id and image of a thread's process: "1000 sh".
    std::string Of(pid_t tid)
    {
        Process* process = tracker_->ProcessOfThread(tid);
        if (process == nullptr)
        {
            return "nobody";
        }
        const std::string text =
            std::to_string(reinterpret_cast<ULONG_PTR>(process->Id)) + ' ' + Narrow(process->ImageFileName);
        DereferenceObject(process);
        return text;
    }

    FakeProc proc_;
    const std::string init_ = proc_.Executable("init");
    const std::string shell_ = proc_.Executable("sh");
    const std::string editor_ = proc_.Executable("vim");
    Machine machine_;
    ProcessNotes notes_;
    std::unique_ptr<ProcessTracker> tracker_;
};

TEST_F(ProcScanTest, AncestorsThatWereNotKnownComeFirst)
{
    // The ids tell nothing about who came first.
    proc_.Put({.Id = 700, .Parent = Shell, .Image = shell_, .StartTicks = 200});
    proc_.Put({.Id = 600, .Parent = 700, .Image = shell_, .StartTicks = 200});
    proc_.Put({.Id = 500, .Parent = 600, .Image = editor_, .StartTicks = 200});
    const size_t before = notes_.All().size();
    EXPECT_EQ("500 vim", Of(500));
    const auto all = notes_.All();
    ASSERT_EQ(before + 3, all.size());
    const pid_t expected[] = {700, 600, 500};
    for (size_t i = 0; i < 3; ++i)
    {
        const ProcessNote& note = all[before + i];
        EXPECT_EQ(expected[i], note.Id);
        EXPECT_EQ(i == 0 ? Shell : expected[i - 1], note.Parent);
        EXPECT_EQ(note.Parent, note.On);
        EXPECT_LT(all[before + i - 1].CreateTime, note.CreateTime);
    }
}

TEST_F(ProcScanTest, AParentThatChangedIsSeenForWhatItIsBeforeItsChild)
{
    proc_.Put({.Id = Shell, .Parent = Init, .Image = editor_, .StartTicks = 100, .StackStart = 0x7ffd0000});
    proc_.Put({.Id = Editor, .Parent = Shell, .Image = editor_, .StartTicks = 300});
    EXPECT_EQ("1001 vim", Of(Editor));
    EXPECT_THAT(notes_.TextsOf(Shell), ElementsAre(Created(shell_), "-", Created(editor_)));
    EXPECT_EQ(Editor, notes_.All().back().Id);
}

TEST_F(ProcScanTest, AnIdThatIsUsedAgainIsAnotherProcess)
{
    proc_.Put({.Id = Shell, .Parent = Init, .Image = editor_, .StartTicks = 101});
    EXPECT_EQ("1000 vim", Of(Shell));
    EXPECT_THAT(notes_.TextsOf(Shell), ElementsAre(Created(shell_), "-", Created(editor_)));
    EXPECT_EQ("1000 vim", Of(Shell));
    EXPECT_EQ(3u, notes_.Of(Shell).size());
}

TEST_F(ProcScanTest, ARenamedImageIsNoOther)
{
    proc_.Put({.Id = Shell, .Parent = Init, .Image = editor_, .StartTicks = 100});
    EXPECT_EQ("1000 sh", Of(Shell));
    EXPECT_THAT(notes_.TextsOf(Shell), ElementsAre(Created(shell_)));
}

TEST_F(ProcScanTest, WhoeverIsGoneHasExited)
{
    EXPECT_EQ("1000 sh", Of(Shell));
    proc_.Remove(Shell);
    EXPECT_EQ("nobody", Of(Shell));
    EXPECT_THAT(notes_.TextsOf(Shell), ElementsAre(Created(shell_), "-"));
    proc_.Put({.Id = Editor, .Parent = Init, .Image = editor_, .StartTicks = 300});
    tracker_->BringUpToDate();
    EXPECT_THAT(notes_.TextsOf(Editor), ElementsAre(Created(editor_)));
    proc_.Put({.Id = Editor, .Parent = Init, .StartTicks = 300, .StackStart = 0, .State = 'Z'});
    tracker_->BringUpToDate();
    EXPECT_THAT(notes_.TextsOf(Editor), ElementsAre(Created(editor_), "-"));
}

TEST_F(ProcScanTest, AThreadThatChangesHandsChangesItsProcess)
{
    proc_.Put({.Id = Shell, .Parent = Init, .Image = shell_, .StartTicks = 100, .OtherThreads = {1500}});
    EXPECT_EQ("1000 sh", Of(1500));
    EXPECT_EQ("1000 sh", Of(1500));
    EXPECT_EQ(nullptr, tracker_->ProcessById(1500));
    proc_.Put({.Id = Shell, .Parent = Init, .Image = shell_, .StartTicks = 100});
    proc_.Put({.Id = Editor, .Parent = Shell, .Image = editor_, .StartTicks = 400, .OtherThreads = {1500}});
    EXPECT_EQ("1001 vim", Of(1500));
}

TEST_F(ProcScanTest, TheFirstThreadMayHaveGone)
{
    proc_.Put({.Id = Editor,
        .Parent = Shell,
        .Image = editor_,
        .StartTicks = 300,
        .StackStart = 0,
        .State = 'Z',
        .OtherThreads = {1500}});
    std::filesystem::remove(proc_.Path() + "/1001/exe");
    std::filesystem::create_directories(proc_.Path() + "/1001/task/1500/ns");
    std::filesystem::create_symlink("user:[4026531837]", proc_.Path() + "/1001/task/1500/ns/user");
    EXPECT_EQ("1001 vim", Of(1500));
    EXPECT_EQ("1001 vim", Of(1500));
    EXPECT_THAT(notes_.TextsOf(Editor), ElementsAre(Created(editor_)));
}

TEST_F(ProcScanTest, WhoseImageMayNotBeReadIsNobody)
{
    proc_.Put({.Id = Editor, .Parent = Shell, .StartTicks = 300});
    EXPECT_EQ("nobody", Of(Editor));
    EXPECT_THAT(notes_.Of(Editor), IsEmpty());
    // As soon as it may be read the process is known.
    proc_.Put({.Id = Editor, .Parent = Shell, .Image = editor_, .StartTicks = 300});
    EXPECT_EQ("1001 vim", Of(Editor));
    // And no longer than that: after the next exec it could be anything.
    proc_.Put({.Id = Editor, .Parent = Shell, .StartTicks = 300, .StackStart = 0x7ffd0000});
    EXPECT_EQ("nobody", Of(Editor));
    EXPECT_THAT(notes_.TextsOf(Editor), ElementsAre(Created(editor_), "-"));
}

TEST_F(ProcScanTest, AnImageFromElsewhereLiesOnNoVolume)
{
    proc_.Put({.Id = Editor, .Parent = Shell, .Image = editor_, .StartTicks = 300});
    std::filesystem::remove(proc_.Path() + "/1001/ns/user");
    std::filesystem::create_symlink("user:[4026539999]", proc_.Path() + "/1001/ns/user");
    EXPECT_EQ("1001 vim", Of(Editor));
    EXPECT_EQ(0u, notes_.Of(Editor).front().Image.find("\\Device\\Unreachable\\"));
    EXPECT_EQ("none", notes_.Of(Editor).front().FileName);

    proc_.SetMounts("0 0 8:1 / / rw - ext4 /dev/sda1 rw\n");
    proc_.Put({.Id = 1002, .Parent = Init, .Image = shell_, .StartTicks = 300});
    EXPECT_EQ("1002 sh", Of(1002));
    EXPECT_EQ(0u, notes_.Of(1002).front().Image.find("\\Device\\Unreachable\\"));
}

TEST_F(ProcScanTest, ANameMayHoldAnything)
{
    proc_.Put({.Id = Editor, .Parent = Shell, .Image = editor_, .StartTicks = 300, .Name = ") R 7 (\n 8"});
    EXPECT_EQ("1001 vim", Of(Editor));
    EXPECT_EQ(Shell, notes_.Of(Editor).front().Parent);
}

TEST_F(ProcScanTest, TheSystemsIdIsGivenToNobodyElse)
{
    constexpr ULONG_PTR inItsPlace = 0x400004;
    proc_.Put({.Id = 4, .Parent = Init, .Image = editor_, .StartTicks = 300});
    proc_.Put({.Id = Editor, .Parent = 4, .Image = shell_, .StartTicks = 300});
    EXPECT_EQ(std::to_string(inItsPlace) + " vim", Of(4));
    EXPECT_EQ("1001 sh", Of(Editor));
    EXPECT_EQ(static_cast<pid_t>(inItsPlace), notes_.Of(Editor).front().Parent);
    Process* byId = tracker_->ProcessById(4);
    ASSERT_NE(nullptr, byId);
    EXPECT_EQ(Id(inItsPlace), byId->Id);
    DereferenceObject(byId);
}

TEST_F(ProcScanTest, KernelThreadsAreTheSystemUntilTheyRunAProgram)
{
    const size_t before = notes_.All().size();
    proc_.Put({.Id = 2, .StackStart = 0, .Kernel = true});
    proc_.Put({.Id = 30, .Parent = 2, .StartTicks = 5, .StackStart = 0, .Kernel = true});
    EXPECT_EQ("4 System", Of(30));
    EXPECT_EQ(before, notes_.All().size());
    proc_.Put({.Id = 30, .Parent = 2, .Image = shell_, .StartTicks = 5});
    EXPECT_EQ("30 sh", Of(30));
    EXPECT_EQ(4, notes_.Of(30).front().Parent);
    proc_.Remove(30);
    EXPECT_EQ("nobody", Of(30));
    EXPECT_EQ("4 System", Of(2));
}

TEST_F(ProcScanTest, ZeroIsTheKernelOnlyWhereEveryTaskHasAnId)
{
    EXPECT_EQ("4 System", Of(0));
    tracker_.reset();
    proc_.SetPidNamespace("pid:[4026532177]");
    tracker_ = std::make_unique<ProcessTracker>(
        TrackerOptions{.ImageName = Name, .UseConnector = false, .Proc = proc_.Path()});
    EXPECT_EQ("nobody", Of(0));
}

TEST_F(ProcScanTest, DamagedFilesAreNobody)
{
    for (const std::string text : {"", "1001", "1001 (name) S", "1001 (name) S x"})
    {
        std::filesystem::create_directories(proc_.Path() + "/1001");
        std::ofstream(proc_.Path() + "/1001/stat") << text;
        std::ofstream(proc_.Path() + "/1001/status") << "Tgid: 1001\n";
        EXPECT_EQ("nobody", Of(Editor)) << text;
    }
}
}
