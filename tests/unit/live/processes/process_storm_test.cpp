// Many processes at once, more than the connector's queue holds, and what the connector alone can do.
#include "tests/unit/live/processes/tracker_fixture.h"

#include <atomic>
#include <map>
#include <mutex>
#include <set>

using namespace hosted;
using namespace tracker_test;

namespace
{
// The children of one process that were announced; each must have been created and ended in turn.
std::set<pid_t> ChildrenThatCameAndWent(const ProcessNotes& notes, pid_t parent)
{
    std::set<pid_t> children;
    std::map<pid_t, bool> running;
    for (const ProcessNote& note : notes.All())
    {
        if (note.Exit)
        {
            if (running.contains(note.Id))
            {
                EXPECT_TRUE(running[note.Id]) << note.Id << " ended twice";
                running[note.Id] = false;
            }
        }
        else if (note.Parent == parent)
        {
            EXPECT_FALSE(running[note.Id]) << note.Id << " was created twice";
            running[note.Id] = true;
            children.insert(note.Id);
        }
    }
    for (const auto& [pid, runs] : running)
    {
        EXPECT_FALSE(runs) << pid << " never ended";
    }
    return children;
}

class ProcessStormTest : public TrackerFixture
{
};

INSTANTIATE_TEST_SUITE_P(
    Live, ProcessStormTest, testing::Bool(), [](const auto& info) { return info.param ? "Connector" : "Proc"; });

TEST_P(ProcessStormTest, ManyShortLivesWhileManyAsk)
{
    constexpr int count = 300;
    ProcessActor actor;
    tracker_->BringUpToDate();
    std::atomic<bool> over{false};
    std::vector<std::thread> askers;
    for (int i = 0; i < 3; ++i)
    {
        askers.emplace_back(
            [this, &over]
            {
                while (!over)
                {
                    EXPECT_EQ(Id(getpid()), Held(tracker_->ProcessOfThread(gettid())).Id());
                }
            });
    }
    EXPECT_EQ("done", actor.Ask("storm " + std::to_string(count)));
    over = true;
    for (std::thread& asker : askers)
    {
        asker.join();
    }
    const auto settled = [this, &actor]
    {
        tracker_->BringUpToDate();
        std::set<HANDLE> parents;
        for (const ProcessSummary& process : SnapshotProcesses())
        {
            parents.insert(process.ParentId);
        }
        return !parents.contains(Id(actor.Id()));
    };
    EXPECT_TRUE(Eventually(settled));
    const std::set<pid_t> children = ChildrenThatCameAndWent(notes_, actor.Id());
    if (GetParam() && tracker_->LostEvents() == 0)
    {
        EXPECT_EQ(static_cast<size_t>(count), children.size());
    }
}

class ProcessConnectorTest : public TrackerFixture
{
};

INSTANTIATE_TEST_SUITE_P(Live, ProcessConnectorTest, testing::Values(true), [](const auto&) { return "Connector"; });

TEST_P(ProcessConnectorTest, LostEventsAreMadeUpFor)
{
    const std::string editor = Copy("editor");
    tracker_.reset();
    tracker_ = Track({.ConnectorBufferBytes = 4096});
    ASSERT_TRUE(tracker_->ConnectorInUse());
    ProcessActor actor, leaving;
    tracker_->BringUpToDate();
    const size_t lostBefore = tracker_->LostEvents();
    // While one notification is under way nothing is taken from the queue.
    std::mutex gate;
    std::atomic<pid_t> held{0};
    std::unique_lock closed(gate);
    notes_.SetDuring(
        [&](pid_t pid, bool)
        {
            held = pid;
            const std::lock_guard passed(gate);
        });
    const pid_t child = actor.AskId("fork");
    ASSERT_TRUE(Eventually([&] { return held != 0; }));
    EXPECT_EQ("done", actor.Ask("storm 100"));
    EXPECT_EQ(std::to_string(child), actor.Ask("child exec " + editor));
    const pid_t grandchild = actor.AskId("child fork");
    leaving.Leave();
    notes_.SetDuring({});
    closed.unlock();

    EXPECT_EQ(Narrow(NameOf(editor)), Held(tracker_->ProcessById(child)).Image());
    EXPECT_GT(tracker_->LostEvents(), lostBefore);
    const Held last(tracker_->ProcessOfThread(grandchild));
    EXPECT_EQ(Narrow(NameOf(editor)), last.Image());
    EXPECT_EQ(Id(child), last.Object->ParentId);
    EXPECT_EQ(Narrow(NameOf(editor)), notes_.Of(child).back().Image);
    EXPECT_TRUE(SeesExit(leaving.Id()));
}

TEST_P(ProcessConnectorTest, TellsOfEverythingWithoutBeingAsked)
{
    ProcessActor actor;
    const pid_t child = actor.AskId("fork");
    EXPECT_TRUE(Eventually([&] { return !notes_.Of(child).empty(); }));
    EXPECT_EQ("gone", actor.Ask("child leave"));
    EXPECT_TRUE(Eventually([&] { return notes_.HasExited(child); }));
}

TEST_P(ProcessConnectorTest, NeedsNoLookAtProcForWhoIsKnown)
{
    const std::string proc = folder_.Path("proc");
    std::filesystem::create_symlink("/proc", proc);
    tracker_.reset();
    tracker_ = Track({.Proc = proc});
    ASSERT_TRUE(tracker_->ConnectorInUse());
    std::filesystem::remove(proc);
    EXPECT_EQ(Id(getpid()), Held(tracker_->ProcessOfThread(gettid())).Id());
    std::thread([this] { EXPECT_EQ(Id(getpid()), Held(tracker_->ProcessOfThread(gettid())).Id()); }).join();
}
}
