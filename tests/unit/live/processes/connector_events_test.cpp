// Events that come late, twice or not at all.
#include "live/processes/linux_processes.h"

#include "tests/unit/live/processes/fake_proc.h"
#include "tests/unit/live/processes/process_notes.h"

#include <gmock/gmock.h>

using namespace hosted;
using testing::ElementsAre;
using testing::IsEmpty;
using Kind = ConnectorEvent::Kind;

namespace
{
constexpr pid_t Shell = 1000;
constexpr pid_t Editor = 1001;
constexpr pid_t Worker = 1500;

class ConnectorEventsTest : public testing::Test
{
protected:
    ConnectorEventsTest()
    {
        proc_.Put({.Id = Shell, .Image = shell_, .StartTicks = 100});
        processes_ = std::make_unique<LinuxProcesses>(proc_.Path(), [](const std::string& path)
            { return L"\\Device\\HarddiskVolume1" + Widen("\\" + path.substr(path.rfind('/') + 1)); });
        processes_->ExpectEvents(true);
        processes_->Reconcile();
    }

    void Fork(pid_t parent, pid_t child, uint64_t time = MonotonicNow())
    {
        processes_->Apply({Kind::Fork, time, child, child, parent, false});
    }
    void Thread(pid_t pid, pid_t tid, uint64_t time = MonotonicNow())
    {
        processes_->Apply({Kind::Fork, time, tid, pid, 0, false});
    }
    void Exec(pid_t pid, uint64_t time = MonotonicNow()) { processes_->Apply({Kind::Exec, time, pid, pid, 0, false}); }
    void Exit(pid_t pid, pid_t tid, uint64_t time = MonotonicNow())
    {
        processes_->Apply({Kind::Exit, time, tid, pid, 0, false});
    }
    void PutEditor(const std::string& image, unsigned long long start = 200, std::vector<pid_t> others = {})
    {
        proc_.Put({.Id = Editor, .Parent = Shell, .Image = image, .StartTicks = start, .OtherThreads = others});
    }

    FakeProc proc_;
    const std::string shell_ = proc_.Executable("sh");
    const std::string editor_ = proc_.Executable("vim");
    const std::string createdShell_ = "+ \\Device\\HarddiskVolume1\\sh";
    const std::string createdEditor_ = "+ \\Device\\HarddiskVolume1\\vim";
    Machine machine_;
    ProcessNotes notes_;
    std::unique_ptr<LinuxProcesses> processes_;
};

TEST_F(ConnectorEventsTest, EachEventIsAnnouncedOnce)
{
    PutEditor(shell_);
    const uint64_t forked = MonotonicNow();
    Fork(Shell, Editor, forked);
    Fork(Shell, Editor, forked);
    EXPECT_THAT(notes_.TextsOf(Editor), ElementsAre(createdShell_));
    PutEditor(editor_);
    const uint64_t execed = MonotonicNow();
    Exec(Editor, execed);
    Exec(Editor, execed);
    EXPECT_THAT(notes_.TextsOf(Editor), ElementsAre(createdShell_, "-", createdEditor_));
    proc_.Remove(Editor);
    Exit(Editor, Editor);
    Exit(Editor, Editor);
    Exec(Editor);
    EXPECT_THAT(notes_.TextsOf(Editor), ElementsAre(createdShell_, "-", createdEditor_, "-"));
    EXPECT_EQ(nullptr, processes_->FindByThread(Editor));
}

TEST_F(ConnectorEventsTest, AForkThatIsSeenAfterItsExecHasTheNewImage)
{
    const uint64_t forked = MonotonicNow();
    const uint64_t execed = MonotonicNow();
    PutEditor(editor_);
    Fork(Shell, Editor, forked);
    Exec(Editor, execed);
    EXPECT_THAT(notes_.TextsOf(Editor), ElementsAre(createdEditor_));
}

TEST_F(ConnectorEventsTest, AChildThatIsGoneHasItsParentsImage)
{
    Fork(Shell, Editor);
    EXPECT_THAT(notes_.TextsOf(Editor), ElementsAre(createdShell_));
    EXPECT_EQ(Shell, notes_.Of(Editor).front().Parent);
    // Whatever it ran then cannot be told.
    Exec(Editor);
    Exit(Editor, Editor);
    EXPECT_THAT(notes_.TextsOf(Editor), ElementsAre(createdShell_, "-"));
}

TEST_F(ConnectorEventsTest, AChildThatIsGoneHasNoImageThatItsParentGotLater)
{
    const uint64_t forked = MonotonicNow();
    proc_.Put({.Id = Shell, .Image = editor_, .StartTicks = 100});
    Exec(Shell);
    Fork(Shell, Editor, forked);
    EXPECT_THAT(notes_.Of(Editor), IsEmpty());
}

TEST_F(ConnectorEventsTest, AChildWhoseImageMayNotBeReadIsNotItsParent)
{
    PutEditor("");
    Fork(Shell, Editor);
    EXPECT_THAT(notes_.Of(Editor), IsEmpty());
    EXPECT_EQ(nullptr, processes_->Find(Editor));
}

TEST_F(ConnectorEventsTest, AnIdThatIsUsedAgainBeforeItsExitIsHeardOf)
{
    PutEditor(shell_, 200);
    Fork(Shell, Editor);
    const uint64_t exited = MonotonicNow();
    PutEditor(editor_, 300);
    Fork(Shell, Editor);
    Exit(Editor, Editor, exited);
    EXPECT_THAT(notes_.TextsOf(Editor), ElementsAre(createdShell_, "-", createdEditor_));
    EXPECT_EQ(Editor, processes_->FindByThread(Editor)->Id);
}

TEST_F(ConnectorEventsTest, TheFirstThreadsExitAfterAnotherOnesExec)
{
    PutEditor(shell_, 200, {Worker});
    Fork(Shell, Editor);
    EXPECT_EQ(Editor, processes_->FindByThread(Worker)->Id);
    // The other thread has taken over the id; that the first one has gone is told last.
    proc_.Remove(Worker);
    PutEditor(editor_);
    Exec(Editor);
    Exit(Editor, Editor);
    EXPECT_THAT(notes_.TextsOf(Editor), ElementsAre(createdShell_, "-", createdEditor_));
    EXPECT_EQ(nullptr, processes_->FindByThread(Worker));
    EXPECT_EQ(Editor, processes_->FindByThread(Editor)->Id);
}

TEST_F(ConnectorEventsTest, AProcessEndsWithItsLastThread)
{
    PutEditor(shell_);
    Fork(Shell, Editor);
    Thread(Editor, Worker);
    Exit(Editor, Editor);
    EXPECT_THAT(notes_.TextsOf(Editor), ElementsAre(createdShell_));
    EXPECT_EQ(Editor, processes_->FindByThread(Worker)->Id);
    proc_.Remove(Editor);
    Exit(Editor, Worker);
    EXPECT_THAT(notes_.TextsOf(Editor), ElementsAre(createdShell_, "-"));
}

TEST_F(ConnectorEventsTest, AThreadWhoseExitWasLostDoesNotKeepItsProcess)
{
    PutEditor(shell_);
    Fork(Shell, Editor);
    const uint64_t begun = MonotonicNow();
    processes_->Reconcile();
    Thread(Editor, Worker, begun);
    EXPECT_EQ(nullptr, processes_->FindByThread(Worker));
    proc_.Remove(Editor);
    Exit(Editor, Editor);
    EXPECT_THAT(notes_.TextsOf(Editor), ElementsAre(createdShell_, "-"));
}

TEST_F(ConnectorEventsTest, AThreadIdThatIsUsedInAnotherProcess)
{
    PutEditor(shell_);
    Fork(Shell, Editor);
    Thread(Shell, Worker);
    EXPECT_EQ(Shell, processes_->FindByThread(Worker)->Id);
    Thread(Editor, Worker);
    EXPECT_EQ(Editor, processes_->FindByThread(Worker)->Id);
    Exit(Shell, Worker);
    EXPECT_EQ(Editor, processes_->FindByThread(Worker)->Id);
}

TEST_F(ConnectorEventsTest, AProgramOfTheKernelIsAProcessFromItsExecOn)
{
    proc_.Put({.Id = 2, .StackStart = 0, .Kernel = true});
    processes_->Reconcile();
    proc_.Put({.Id = Editor, .Parent = 2, .StartTicks = 200, .StackStart = 0});
    Fork(2, Editor);
    EXPECT_THAT(notes_.Of(Editor), IsEmpty());
    proc_.Put({.Id = Editor, .Parent = 2, .Image = editor_, .StartTicks = 200});
    Exec(Editor);
    EXPECT_THAT(notes_.TextsOf(Editor), ElementsAre(createdEditor_));
    EXPECT_EQ(4, notes_.Of(Editor).front().Parent);
    // The end of a kernel thread is nobody's.
    const size_t before = notes_.All().size();
    proc_.Remove(2);
    Exit(2, 2);
    EXPECT_EQ(nullptr, processes_->Find(2));
    EXPECT_EQ(before, notes_.All().size());
}
}
