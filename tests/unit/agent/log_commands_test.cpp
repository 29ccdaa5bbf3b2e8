// Log records as they arrive on the command line.
#include "tests/unit/agent/tarnctl_fixture.h"

#include <thread>

namespace tarnctl_test
{
namespace
{
class TarnctlLog : public TarnctlTest
{
protected:
    void SetUp() override
    {
        TarnctlTest::SetUp();
        ASSERT_EQ(program_.SetCryptKey(std::string(16, 'k'), 1), STATUS_SUCCESS);
        ASSERT_EQ(program_.AddProcess(L"C:\\Apps\\Editor.exe").Status, STATUS_SUCCESS);
        editor_.emplace(machine_.StartProcess(L"C:\\Apps\\Editor.exe"));
        other_.emplace(machine_.StartProcess(L"C:\\Apps\\Other.exe"));
    }

    // An allowed open and a denied one.
    void Open()
    {
        EXPECT_EQ(editor_->Create(L"C:\\Sandbox\\plan.txt").Status(), STATUS_SUCCESS);
        EXPECT_EQ(other_->Open(L"C:\\Sandbox\\plan.txt").Status(), STATUS_ACCESS_DENIED);
    }

    // Opens at the first wait, then no more; the run ends by itself once everything is printed.
    Waiting OpenOnce()
    {
        return [this, done = false](tarnctl::Transport& way, Longest) mutable
        {
            if (!std::exchange(done, true))
            {
                Open();
            }
            return SignalledOrInterrupted(way);
        };
    }

    std::string Id(const Program& program) { return std::to_string(program.ProcessId()); }

    // Nothing waits, and what happens now is not queued either.
    bool LoggingHasEnded()
    {
        const bool empty = program_.GetLogData().Status == STATUS_NO_MORE_ENTRIES;
        Open();
        return empty && program_.GetLogData().Status == STATUS_NO_MORE_ENTRIES;
    }

    std::optional<Program> editor_;
    std::optional<Program> other_;
};

INSTANTIATE_TEST_SUITE_P(Ways, TarnctlLog, AllWays, WayName);

TEST_P(TarnctlLog, RecordsAreLines)
{
    const Outcome outcome = Run({"log", "follow", "--levels", "allowed,denied"}, OpenOnce());
    EXPECT_EQ(outcome.Exit, 0) << outcome.Error;
    const std::string path = "path = \\Device\\HarddiskVolume1\\Sandbox\\plan.txt\n";
    EXPECT_EQ(outcome.Output, "Info  Editor.exe (" + Id(*editor_) + "): IRP = CREATE Ope = PRE status = 0x00000000L " +
                                  path + "Warn  Other.exe (" + Id(*other_) +
                                  "): IRP = CREATE Ope = PRE status = 0xC0000022L " + path);
    EXPECT_TRUE(LoggingHasEnded());
}

TEST_P(TarnctlLog, RecordsAreJsonLines)
{
    const Outcome outcome = Run({"log", "follow", "--json", "--levels", "denied"}, OpenOnce());
    EXPECT_EQ(outcome.Exit, 0) << outcome.Error;
    EXPECT_EQ(outcome.Output,
        "{\"level\":8,\"levelName\":\"Warn\",\"pid\":" + Id(*other_) +
            ",\"process\":\"Other.exe\",\"message\":\"IRP = CREATE Ope = PRE status = 0xC0000022L path = "
            "\\\\Device\\\\HarddiskVolume1\\\\Sandbox\\\\plan.txt\"}\n");
}

TEST_P(TarnctlLog, EveryLevelByDefault)
{
    const Outcome outcome = Run({"log", "follow"},
        [this, done = false](tarnctl::Transport& way, Longest) mutable
        {
            if (!std::exchange(done, true))
            {
                Open();
                program_.SetCryptKey(std::string(16, 'x'), 2);
            }
            return SignalledOrInterrupted(way);
        });
    EXPECT_EQ(outcome.Exit, 0);
    EXPECT_THAT(outcome.Output,
        AllOf(HasSubstr("Trace tarnctl.exe"), HasSubstr("IOCTL = START_LOG"), HasSubstr("Info  Editor.exe"),
            HasSubstr("Warn  Other.exe"), HasSubstr("Warn  tarnctl.exe"), HasSubstr("status = OVERRIDE_KEY")));
}

TEST_P(TarnctlLog, ACountEndsIt)
{
    int waits = 0;
    const Waiting openTwice = [&](tarnctl::Transport& way, Longest)
    {
        ++waits;
        Open();
        Open();
        return SignalledOrInterrupted(way);
    };
    const Outcome outcome = Run({"log", "follow", "--levels", "denied", "--count", "3"}, openTwice);
    EXPECT_EQ(outcome.Exit, 0);
    EXPECT_EQ(std::ranges::count(outcome.Output, '\n'), 3);
    EXPECT_EQ(waits, 2);
    EXPECT_TRUE(LoggingHasEnded());
}

TEST_P(TarnctlLog, NoRecordForAWhileEndsIt)
{
    Longest asked;
    const Waiting waiting = [&asked](tarnctl::Transport&, Longest longest)
    {
        asked = longest;
        return tarnctl::Wake::TimedOut;
    };
    EXPECT_EQ(Run({"log", "follow", "--levels", "denied", "--idle", "5"}, waiting).Exit, 0);
    EXPECT_EQ(asked, std::chrono::seconds(5));
    EXPECT_EQ(Run({"log", "follow", "--levels", "denied"}, waiting).Exit, 0);
    EXPECT_EQ(asked, std::nullopt);
}

TEST_P(TarnctlLog, RecordsOfTheLastMomentArePrinted)
{
    const Outcome outcome = Run({"log", "follow", "--levels", "denied"},
        [this](tarnctl::Transport&, Longest)
        {
            Open();
            return tarnctl::Wake::Interrupted;
        });
    EXPECT_EQ(outcome.Exit, 0);
    EXPECT_EQ(std::ranges::count(outcome.Output, '\n'), 1);
}

TEST_P(TarnctlLog, RecordsFromAnotherThreadArrive)
{
    constexpr int Opens = 300;
    std::thread opener;
    const Waiting startThenWait = [&](tarnctl::Transport& way, Longest)
    {
        if (!opener.joinable())
        {
            opener = std::thread(
                [this]
                {
                    for (int i = 0; i < Opens; ++i)
                    {
                        other_->Open(L"C:\\Sandbox\\plan.txt");
                    }
                });
        }
        return way.WaitForLogEvent(std::chrono::seconds(10));
    };
    const Outcome outcome =
        Run({"log", "follow", "--levels", "denied", "--count", std::to_string(Opens)}, startThenWait);
    opener.join();
    EXPECT_EQ(outcome.Exit, 0);
    EXPECT_EQ(std::ranges::count(outcome.Output, '\n'), Opens);
}

TEST_P(TarnctlLog, StopDropsWhatWaits)
{
    const ProgramEvent event = program_.CreateEvent();
    ASSERT_EQ(program_.StartLogging(event, TARNVEIL_LEVEL_DENIED_OPEN), STATUS_SUCCESS);
    Open();
    EXPECT_EQ(Output({"log", "stop"}), "logging has ended\n");
    EXPECT_TRUE(LoggingHasEnded());
    EXPECT_EQ(Output({"log", "stop", "--json"}), "{\"logging\":false}\n");
}

TEST_P(TarnctlLog, AnAgentThatWasKilledIsSucceeded)
{
    // Its event had the handle that the next agent's event gets, and the levels are the same.
    const Program killed = machine_.StartProcess(L"C:\\Agent\\tarnctl.exe");
    const ProgramEvent event = killed.CreateEvent();
    ASSERT_EQ(killed.StartLogging(event, TARNVEIL_LEVEL_DENIED_OPEN), STATUS_SUCCESS);
    killed.Exit();
    EXPECT_EQ(program_.Object()->Handles.Count(), 0u);
    const Waiting openThenWait = [this](tarnctl::Transport& way, Longest)
    {
        Open();
        const tarnctl::Wake wake = way.WaitForLogEvent(std::chrono::seconds(10));
        EXPECT_EQ(wake, tarnctl::Wake::Signalled);
        return wake;
    };
    const Outcome outcome = Run({"log", "follow", "--levels", "denied", "--count", "1"}, openThenWait);
    EXPECT_EQ(outcome.Exit, 0) << outcome.Error;
    EXPECT_EQ(std::ranges::count(outcome.Output, '\n'), 1);
}
}
}
