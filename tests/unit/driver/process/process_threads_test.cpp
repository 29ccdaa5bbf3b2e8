// Several requests and notifications at once.
#include "driver/process/monitored_process.h"
#include "tests/unit/driver/process/agent_fixture.h"

#include <set>
#include <thread>

using namespace agent_test;

namespace
{
constexpr unsigned Threads = 4;

class ProcessThreadsTest : public AgentTest
{
protected:
    // act(n) in a thread of its own, for every n; back when all have ended.
    template <class Act>
    static void AtOnce(Act&& act)
    {
        std::vector<std::thread> threads;
        for (unsigned n = 0; n < Threads; ++n)
        {
            threads.emplace_back([&act, n] { act(n); });
        }
        for (std::thread& thread : threads)
        {
            thread.join();
        }
    }
};

TEST_F(ProcessThreadsTest, NoNumberIsGivenOutTwice)
{
    constexpr unsigned Rounds = 50;
    std::mutex mutex;
    std::set<ULONG> held;
    AtOnce(
        [&](unsigned)
        {
            for (unsigned i = 0; i < Rounds; ++i)
            {
                const ULONG id = IssueId();
                {
                    std::lock_guard guard(mutex);
                    EXPECT_TRUE(held.insert(id).second) << id;
                }
                if (i % 2 == 0)
                {
                    {
                        std::lock_guard guard(mutex);
                        held.erase(id);
                    }
                    EXPECT_EQ(ReleaseId(id), STATUS_SUCCESS);
                }
            }
        });
    EXPECT_EQ(held.size(), Threads * Rounds / 2);
    // Numbers come back before fresh ones are made, so there never were more than were held at once.
    EXPECT_LE(*held.rbegin(), Id(Threads * Rounds / 2 + Threads));
}

TEST_F(ProcessThreadsTest, SettingsOfDifferentPathsKeepTheirNumbers)
{
    std::vector<std::vector<ULONG>> ids(Threads);
    AtOnce(
        [&](unsigned n)
        {
            const WideString folder = L"C:\\" + WideString(1, static_cast<WCHAR>(L'a' + n)) + L"\\";
            for (WCHAR name = L'a'; name <= L'p'; ++name)
            {
                const ControlAnswer added = agent_.AddExclusion(folder + WideString(1, name));
                EXPECT_EQ(added.Status, STATUS_SUCCESS);
                EXPECT_EQ(agent_.AddExclusion(folder + WideString(1, name)), added);
                ids[n].push_back(added.Value);
            }
            // Every second one goes again.
            for (size_t i = 0; i < ids[n].size(); i += 2)
            {
                EXPECT_EQ(agent_.DelProcess(ids[n][i]), STATUS_SUCCESS);
            }
        });
    WithLock(ExclusionProcessNames.Settings.Lock, []() REQUIRES_LOCK(ExclusionProcessNames.Settings.Lock)
        { EXPECT_EQ(ExclusionProcessNames.Settings.Entries.Count(), Threads * 8); });
    EXPECT_EQ(agent_.StopDriver(), STATUS_SUCCESS);
}

// Scans of running processes look twice and act once, so what they find may have gone by then; settings that no scan
// follows leave every process where its own creation put it.
TEST_F(ProcessThreadsTest, ProcessesComeAndGoWhileExclusionsDo)
{
    const auto image = [](unsigned n) { return L"C:\\" + WideString(1, static_cast<WCHAR>(L'a' + n)) + L".exe"; };
    for (unsigned n = 0; n < Threads; ++n)
    {
        ASSERT_EQ(agent_.AddParentProcess(image(n)), Added(Id(n)));
    }
    AtOnce(
        [&](unsigned n)
        {
            for (unsigned i = 0; i < 20; ++i)
            {
                const ControlAnswer other = agent_.AddExclusion(L"C:\\other\\" + image(n).substr(3));
                const Program parent = machine_.StartProcess(image(n));
                const Program child = parent.Start(L"C:\\c.exe");
                EXPECT_EQ(agent_.IsUnderSandbox(parent.ProcessId()).Value, 1u);
                EXPECT_EQ(agent_.IsUnderSandbox(child.ProcessId()).Value, 1u);
                EXPECT_EQ(agent_.DelProcess(other.Value), STATUS_SUCCESS);
                EXPECT_EQ(agent_.IsUnderSandbox(child.ProcessId()).Value, 1u);
                child.Exit();
                parent.Exit();
            }
        });
    EXPECT_TRUE(IsMonitoredProcessListEmpty());
}

TEST_F(ProcessThreadsTest, APidListIsWholeWhileProcessesComeAndGo)
{
    const HANDLE resident = reinterpret_cast<HANDLE>(1000);
    ASSERT_EQ(InsertMonitoredProcess(AsProcess(agent_.Object()), resident, 1, 1), STATUS_SUCCESS);
    AtOnce(
        [&](unsigned n)
        {
            const HANDLE id = reinterpret_cast<HANDLE>(static_cast<ULONG_PTR>(2000 + n));
            for (unsigned i = 0; i < 100; ++i)
            {
                if (n % 2 == 0)
                {
                    EXPECT_EQ(InsertMonitoredProcess(AsProcess(agent_.Object()), id, 1, 2 + n), STATUS_SUCCESS);
                    ULONG setting = 0;
                    EXPECT_TRUE(FindMonitoredProcess(id, MonitoredKindAny, &setting));
                    EXPECT_EQ(setting, 2 + n);
                    RemoveMonitoredProcessesById(2 + n);
                    continue;
                }
                const PidListAnswer list = agent_.PidList();
                EXPECT_EQ(list.Status, STATUS_SUCCESS);
                EXPECT_EQ(list.Count, list.Ids.size());
                EXPECT_LE(list.Count, 1 + Threads / 2);
                EXPECT_EQ(list.Ids.empty() ? 0 : list.Ids.front(), 1000u);
            }
        });
    RemoveMonitoredProcessesById(1);
    EXPECT_TRUE(IsMonitoredProcessListEmpty());
}
}
