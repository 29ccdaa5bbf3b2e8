// A list that somebody wrote over stops the system: it is neither repaired nor followed.
#include "driver/process/monitored_process.h"
#include "driver/process/setting_list.h"
#include "tests/unit/driver/process/agent_fixture.h"

using namespace agent_test;

namespace
{
constexpr char Stopped[] = "fast-fail: code 3 .list corruption";

class ListCorruptionDeathTest : public AgentTest
{
protected:
    // The links of the list's only entry; nobody else is at work.
    template <class Entry>
    static LIST_ENTRY* OnlyLinks(LockedList<Entry>& list)
    {
        LIST_ENTRY* links = nullptr;
        WithLock(list.Lock,
            [&]() REQUIRES_LOCK(list.Lock)
            {
                ASSERT_EQ(list.Entries.Count(), 1u);
                links = &list.Entries.First()->Links;
            });
        return links;
    }

    // Runs act(links) with a link that does not point where it should, once for each end of the entry.
    template <class Entry, class Act>
    static void WithABrokenLink(LockedList<Entry>& list, bool forward, Act&& act)
    {
        LIST_ENTRY* links = OnlyLinks(list);
        ASSERT_NE(links, nullptr);
        LIST_ENTRY elsewhere = {&elsewhere, &elsewhere};
        LIST_ENTRY*& broken = forward ? links->Flink : links->Blink;
        LIST_ENTRY* const whole = broken;
        broken = &elsewhere;
        act();
        broken = whole;
    }
};

TEST_F(ListCorruptionDeathTest, ASettingIsNotAppendedBehindABrokenLink)
{
    agent_.AddExclusion(L"C:\\a.exe");
    WithABrokenLink(ExclusionProcessNames.Settings, true,
        [&]
        {
            EXPECT_DEATH(
                {
                    ULONG id = 0;
                    // The look-up must not see the link.
                    ExclusionProcessNames.Settings.Entries.First()->Links.Blink->Flink =
                        ExclusionProcessNames.Settings.Entries.First()->Links.Blink;
                    AddSetting(ExclusionProcessNames, L"C:\\b.exe", &id);
                },
                Stopped);
        });
}

TEST_F(ListCorruptionDeathTest, ASettingIsNotUnlinkedFromABrokenNeighbour)
{
    agent_.AddExclusion(L"C:\\a.exe");
    WithABrokenLink(ExclusionProcessNames.Settings, false,
        [&] { EXPECT_DEATH(DeleteSettingsByPath(ExclusionProcessNames, L"C:\\a.exe"), Stopped); });
    WithABrokenLink(ExclusionProcessNames.Settings, false,
        [&] { EXPECT_DEATH(ClearSettings(ExclusionProcessNames, false), Stopped); });
}

TEST_F(ListCorruptionDeathTest, AMonitoredProcessIsNotAppendedBehindABrokenLink)
{
    const HANDLE id = reinterpret_cast<HANDLE>(1000);
    ASSERT_EQ(InsertMonitoredProcess(AsProcess(agent_.Object()), id, 1, 1), STATUS_SUCCESS);
    ASSERT_EQ(InsertMonitoredParent(AsProcess(agent_.Object()), id, 1), STATUS_SUCCESS);
    WithABrokenLink(Global.MonitoredProcessList, true,
        [&] { EXPECT_DEATH(InsertMonitoredProcess(AsProcess(agent_.Object()), id, 1, 2), Stopped); });
    WithABrokenLink(Global.MonitoredParentProcessList, true,
        [&] { EXPECT_DEATH(InsertMonitoredParent(AsProcess(agent_.Object()), id, 2), Stopped); });
}

TEST_F(ListCorruptionDeathTest, AMonitoredProcessIsNotUnlinkedFromABrokenNeighbour)
{
    const HANDLE id = reinterpret_cast<HANDLE>(1000);
    ASSERT_EQ(InsertMonitoredProcess(AsProcess(agent_.Object()), id, 1, 1), STATUS_SUCCESS);
    ASSERT_EQ(InsertMonitoredParent(AsProcess(agent_.Object()), id, 1), STATUS_SUCCESS);
    WithABrokenLink(
        Global.MonitoredProcessList, false, [&] { EXPECT_DEATH(RemoveMonitoredProcessesByProcess(id), Stopped); });
    WithABrokenLink(
        Global.MonitoredParentProcessList, false, [&] { EXPECT_DEATH(ClearMonitoredParents(false), Stopped); });
}
}
