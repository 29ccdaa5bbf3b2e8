// Real programs as processes of the hosted system.
#include "tests/unit/live/processes/tracker_fixture.h"

#include <sys/wait.h>

#include <fstream>

using namespace hosted;
using namespace tracker_test;
using testing::ElementsAre;

namespace
{
class ProcessTrackerTest : public TrackerFixture
{
};

INSTANTIATE_TEST_SUITE_P(
    Live, ProcessTrackerTest, testing::Bool(), [](const auto& info) { return info.param ? "Connector" : "Proc"; });

TEST_P(ProcessTrackerTest, WhatRunsAlreadyIsThereParentsFirst)
{
    ProcessActor actor;
    tracker_.reset();
    tracker_ = Track({.UseConnector = GetParam()});
    const Held own(tracker_->ProcessById(getpid()));
    ASSERT_EQ(Id(getpid()), own.Id());
    EXPECT_EQ(Narrow(NameOf(self_)), own.Image());
    EXPECT_EQ(Id(getppid()), own.Object->ParentId);
    // Up from the actor, each after its parent and not older than it, as far as images may be told.
    const auto all = SnapshotProcesses();
    EXPECT_EQ(SystemProcess()->Id, all.front().Id);
    const auto find = [&all](HANDLE id) { return std::ranges::find(all, id, &ProcessSummary::Id); };
    const auto hasImage = [](HANDLE id)
    {
        std::error_code error;
        const auto pid = std::to_string(reinterpret_cast<ULONG_PTR>(id));
        return !std::filesystem::read_symlink("/proc/" + pid + "/exe", error).empty();
    };
    auto child = find(Id(actor.Id()));
    ASSERT_NE(all.end(), child);
    EXPECT_EQ(Id(getpid()), child->ParentId);
    while (child->ParentId != nullptr && hasImage(child->ParentId))
    {
        const auto parent = find(child->ParentId);
        ASSERT_LT(parent, child) << child->Id;
        EXPECT_LE(parent->CreateTime, child->CreateTime) << child->Id;
        child = parent;
    }
    EXPECT_EQ(all.end(), find(child->ParentId));
}

TEST_P(ProcessTrackerTest, AForkIsAProcessWithTheSameImageUntilItsExec)
{
    const std::string editor = Copy("editor");
    ProcessActor actor;
    const pid_t child = actor.AskId("fork");
    const Held before(tracker_->ProcessById(child));
    EXPECT_EQ(Narrow(NameOf(actor_)), before.Image());
    EXPECT_EQ(Id(actor.Id()), before.Object->ParentId);
    EXPECT_EQ(std::to_string(child), actor.Ask("child exec " + editor));
    const Held after(tracker_->ProcessOfThread(child));
    EXPECT_EQ(Narrow(NameOf(editor)), after.Image());
    EXPECT_EQ("editor", Narrow(after.Object->ImageFileName));
    EXPECT_NE(before.Object, after.Object);
    EXPECT_TRUE(before.Object->Exited);
    EXPECT_EQ(Id(child), before.Id());

    const auto notes = notes_.Of(child);
    ASSERT_THAT(notes_.TextsOf(child), ElementsAre(Created(actor_), "-", Created(editor)));
    for (const ProcessNote& note : {notes[0], notes[2]})
    {
        EXPECT_EQ(actor.Id(), note.Parent);
        EXPECT_EQ(actor.Id(), note.On);
        EXPECT_EQ(note.Image, Narrow(Device) + note.FileName);
    }
    EXPECT_EQ(child, notes[1].On);
    EXPECT_LT(notes_.Of(actor.Id()).back().CreateTime, notes[0].CreateTime);
    EXPECT_LT(notes[0].CreateTime, notes[2].CreateTime);
}

TEST_P(ProcessTrackerTest, AnExecOfTheSameImageIsAnotherProcess)
{
    ProcessActor actor;
    const Held before(tracker_->ProcessById(actor.Id()));
    EXPECT_EQ(std::to_string(actor.Id()), actor.Ask("exec " + actor_));
    const Held after(tracker_->ProcessById(actor.Id()));
    EXPECT_NE(before.Object, after.Object);
    EXPECT_EQ(before.Image(), after.Image());
    EXPECT_EQ(before.Object->ParentId, after.Object->ParentId);
}

TEST_P(ProcessTrackerTest, AProcessThatEndedIsGoneBeforeItsParentWaitsForIt)
{
    ProcessActor actor;
    const pid_t child = actor.AskId("fork");
    const Held held(tracker_->ProcessById(child));
    ASSERT_NE(nullptr, held.Object);
    EXPECT_EQ("gone", actor.Ask("child leave"));
    EXPECT_TRUE(SeesExit(child));
    EXPECT_TRUE(std::filesystem::exists("/proc/" + std::to_string(child)));
    EXPECT_EQ(nullptr, tracker_->ProcessById(child));
    EXPECT_EQ(nullptr, tracker_->ProcessOfThread(child));
    EXPECT_EQ(nullptr, FindProcess(Id(child)));
    // Whatever is still under way for it can go on.
    const AttachedProcess attached(held.Object);
    EXPECT_EQ(Id(child), PsGetCurrentProcessId());
}

TEST_P(ProcessTrackerTest, ThreadsBelongToTheirProcess)
{
    ProcessActor actor;
    const pid_t tid = actor.AskId("thread");
    ASSERT_NE(tid, actor.Id());
    EXPECT_EQ(Id(actor.Id()), Held(tracker_->ProcessOfThread(tid)).Id());
    EXPECT_EQ(Id(actor.Id()), Held(tracker_->ProcessOfThread(tid)).Id());
    EXPECT_EQ(nullptr, tracker_->ProcessById(tid));
    EXPECT_EQ("joined", actor.Ask("end"));
    EXPECT_TRUE(Eventually([&] { return Held(tracker_->ProcessOfThread(tid)).Object == nullptr; }));
    EXPECT_FALSE(notes_.HasExited(actor.Id()));
    std::thread([this] { EXPECT_EQ(Id(getpid()), Held(tracker_->ProcessOfThread(gettid())).Id()); }).join();
}

TEST_P(ProcessTrackerTest, AProcessLivesAsLongAsAnyOfItsThreads)
{
    ProcessActor actor;
    const pid_t tid = actor.AskId("leaveToThread");
    const std::string stat = "/proc/" + std::to_string(actor.Id()) + "/stat";
    ASSERT_TRUE(Eventually(
        [&]
        {
            std::string text;
            std::getline(std::ifstream(stat), text);
            return text.find(") Z ") != std::string::npos;
        }));
    // Known already, found anew, and again after another of its threads has gone.
    EXPECT_EQ(Id(actor.Id()), Held(tracker_->ProcessOfThread(tid)).Id());
    tracker_.reset();
    tracker_ = Track({.UseConnector = GetParam()});
    EXPECT_EQ(Id(actor.Id()), Held(tracker_->ProcessOfThread(tid)).Id());
    const pid_t passing = actor.AskId("thread");
    EXPECT_EQ("joined", actor.Ask("end"));
    EXPECT_TRUE(Eventually([&] { return Held(tracker_->ProcessOfThread(passing)).Object == nullptr; }));
    EXPECT_FALSE(notes_.HasExited(actor.Id()));
    EXPECT_EQ(Narrow(NameOf(actor_)), Held(tracker_->ProcessOfThread(tid)).Image());
    actor.Leave();
    EXPECT_TRUE(SeesExit(actor.Id()));
}

TEST_P(ProcessTrackerTest, AnExecByAnotherThreadKeepsTheId)
{
    const std::string editor = Copy("editor");
    ProcessActor actor;
    tracker_->BringUpToDate();
    const size_t before = notes_.Of(actor.Id()).size();
    EXPECT_EQ(std::to_string(actor.Id()), actor.Ask("execThread " + editor));
    EXPECT_EQ(Narrow(NameOf(editor)), Held(tracker_->ProcessOfThread(actor.Id())).Image());
    auto texts = notes_.TextsOf(actor.Id());
    texts.erase(texts.begin(), texts.begin() + static_cast<ptrdiff_t>(before));
    EXPECT_THAT(texts, ElementsAre("-", Created(editor)));
    actor.Leave();
    EXPECT_TRUE(SeesExit(actor.Id()));
    EXPECT_EQ(before + 3, notes_.Of(actor.Id()).size());
}

TEST_P(ProcessTrackerTest, AChildOfAParentThatHasGone)
{
    ProcessActor actor;
    tracker_->BringUpToDate();
    pid_t parent, child;
    ASSERT_EQ(2, sscanf(actor.Ask("orphan").c_str(), "%d %d", &parent, &child));
    const Held orphan(tracker_->ProcessById(child));
    EXPECT_EQ(Narrow(NameOf(actor_)), orphan.Image());
    if (!GetParam())
    {
        // Nothing tells of the parent any more.
        EXPECT_THAT(notes_.Of(parent), testing::IsEmpty());
        return;
    }
    EXPECT_EQ(Id(parent), orphan.Object->ParentId);
    EXPECT_TRUE(SeesExit(parent));
    EXPECT_THAT(notes_.TextsOf(parent), ElementsAre(Created(actor_), "-"));
    EXPECT_EQ(actor.Id(), notes_.Of(parent).front().Parent);
}

TEST_P(ProcessTrackerTest, TheParentsImageIsNotTakenForThatOfItsNewChild)
{
    ProcessActor actor;
    // The kernel names this process the parent of a child that the actor has forked.
    const pid_t sibling = actor.AskId("sibling");
    const Held held(tracker_->ProcessById(sibling));
    EXPECT_EQ(Id(getpid()), held.Object->ParentId);
    EXPECT_EQ(Narrow(NameOf(actor_)), held.Image());
    actor.Leave();
    EXPECT_EQ(sibling, waitpid(sibling, nullptr, 0));
    EXPECT_TRUE(SeesExit(sibling));
}

TEST_P(ProcessTrackerTest, AnImageKeepsItsNameAfterItsDeletion)
{
    const std::string editor = Copy("editor");
    ProcessActor actor(editor);
    std::filesystem::remove(editor);
    const pid_t child = actor.AskId("fork");
    EXPECT_EQ(Narrow(NameOf(editor)), Held(tracker_->ProcessById(child)).Image());
    EXPECT_EQ(Narrow(NameOf(editor)), Held(tracker_->ProcessById(actor.Id())).Image());
}

TEST_P(ProcessTrackerTest, AProgramInNamespacesOfItsOwnDoesNotNameItself)
{
    ProcessActor actor;
    if (actor.Ask("isolate") != "done")
    {
        GTEST_SKIP() << "namespaces are not to be had here";
    }
    // It ran before it left, and is what it was.
    const pid_t child = actor.AskId("fork");
    const Held held(tracker_->ProcessById(child));
    EXPECT_EQ("\\Device\\Unreachable" + Narrow(NameOf(actor_)).substr(Narrow(Device).size()), held.Image());
    EXPECT_EQ("none", notes_.Of(child).front().FileName);
    EXPECT_EQ(std::to_string(child), actor.Ask("child exec " + actor_));
    EXPECT_EQ(held.Image(), Held(tracker_->ProcessById(child)).Image());
}

TEST_P(ProcessTrackerTest, TheKernelIsTheSystemProcess)
{
    EXPECT_EQ(SystemProcess()->Id, Held(tracker_->ProcessOfThread(0)).Id()) << "needs the first pid namespace";
    std::string name;
    std::getline(std::ifstream("/proc/2/comm"), name);
    if (name != "kthreadd")
    {
        GTEST_SKIP() << "kernel threads are not to be seen here";
    }
    const Held kernel(tracker_->ProcessOfThread(2));
    EXPECT_EQ(SystemProcess(), kernel.Object);
    EXPECT_EQ(nullptr, FindProcess(Id(2)));
}

TEST_P(ProcessTrackerTest, NobodyIsNoProcess)
{
    constexpr pid_t aboveEveryId = 0x400001;
    EXPECT_EQ(nullptr, tracker_->ProcessOfThread(aboveEveryId));
    EXPECT_EQ(nullptr, tracker_->ProcessById(aboveEveryId));
}

TEST_P(ProcessTrackerTest, EverythingExitsWithTheTracker)
{
    ProcessActor actor;
    const Held held(tracker_->ProcessById(actor.Id()));
    tracker_.reset();
    EXPECT_TRUE(held.Object->Exited);
    EXPECT_THAT(notes_.TextsOf(getpid()), ElementsAre(Created(self_), "-"));
    EXPECT_TRUE(notes_.HasExited(actor.Id()));
    EXPECT_EQ(1u, SnapshotProcesses().size());
    // Children before their parents.
    const auto all = notes_.All();
    const auto exitOf = [&all](pid_t pid)
    { return std::ranges::find_if(all, [pid](const ProcessNote& note) { return note.Id == pid && note.Exit; }); };
    EXPECT_LT(exitOf(actor.Id()), exitOf(getpid()));
}
}
