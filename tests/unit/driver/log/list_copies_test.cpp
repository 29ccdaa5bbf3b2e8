// Copies of lists: null arguments, names without text, no memory half way.

#include "driver/log/list_copies.h"

#include "tests/support/machine.h"
#include "tests/unit/driver/process/agent_fixture.h"

namespace agent_test
{
namespace
{
class ListCopies : public AgentTest
{
};

TEST_F(ListCopies, MissingArgumentsAreRefused)
{
    ListCopy<NameSlot> names;
    ListCopy<ProcessSlot> processes;
    ListCopy<ProcessSlot> allowed;
    FileProtection protection = {};
    protection.AllowedProcesses.Initialize();
    EXPECT_EQ(DuplicateProcessNameList(nullptr, &names), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(DuplicateProcessNameList(&Global.ProcessNameList, nullptr), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(DuplicateMonProcList(nullptr, &processes), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(DuplicateMonProcList(&Global.MonitoredProcessList, nullptr), STATUS_INVALID_PARAMETER);
    FastLock* lock = &Global.FileProtections.Lock;
    EXPECT_EQ(DuplicateAllowedProcessList(nullptr, lock, &allowed), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(DuplicateAllowedProcessList(&protection.AllowedProcesses, nullptr, &allowed), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(DuplicateAllowedProcessList(&protection.AllowedProcesses, lock, nullptr), STATUS_INVALID_PARAMETER);
}

TEST_F(ListCopies, AnEmptyListNeedsNoMemory)
{
    ListCopy<NameSlot> names;
    FailRoutine("ExAllocatePoolWithTag", 1, true);
    EXPECT_EQ(DuplicateProcessNameList(&Global.ProcessNameList, &names), STATUS_SUCCESS);
    EXPECT_EQ(InjectedFailures(), 0u);
    ResetFailures();
    EXPECT_EQ(names.Count(), 0u);
}

TEST_F(ListCopies, AnEmptyNameKeepsItsSlot)
{
    EXPECT_EQ(agent_.AddExclusion(L"C:\\a.exe"), Added(Id(0)));
    EXPECT_EQ(agent_.AddExclusion(L""), Added(Id(1)));
    EXPECT_EQ(agent_.AddExclusion(L"C:\\b.exe"), Added(Id(2)));
    ListCopy<NameSlot> names;
    ASSERT_EQ(DuplicateProcessNameList(&Global.ExclusionProcessNameList, &names), STATUS_SUCCESS);
    ASSERT_EQ(names.Count(), 3u);
    EXPECT_EQ(Narrow(View(names[0].Name)), "C:\\a.exe");
    EXPECT_EQ(names[1].Name.Buffer, nullptr);
    EXPECT_EQ(names[1].Name.Length, 0);
    EXPECT_EQ(Narrow(View(names[2].Name)), "C:\\b.exe");
}

TEST_F(ListCopies, WithoutMemoryHalfWayNothingRemains)
{
    EXPECT_EQ(agent_.AddExclusion(L"C:\\a.exe"), Added(Id(0)));
    EXPECT_EQ(agent_.AddExclusion(L"C:\\b.exe"), Added(Id(1)));
    for (const uint64_t number : {1, 2, 3})
    {
        ListCopy<NameSlot> names;
        FailRoutine("ExAllocatePoolWithTag", number);
        EXPECT_EQ(DuplicateProcessNameList(&Global.ExclusionProcessNameList, &names), STATUS_INSUFFICIENT_RESOURCES);
        ResetFailures();
        EXPECT_EQ(names.Count(), 0u);
    }
}

TEST_F(ListCopies, MonitoredProcessesAreCopied)
{
    EXPECT_EQ(agent_.AddParentProcess(L"C:\\Launcher.exe"), Added(Id(0)));
    const Program launcher = machine_.StartProcess(L"C:\\Launcher.exe");
    const Program child = launcher.Start(L"C:\\child.exe");
    ListCopy<ProcessSlot> processes;
    const auto expectOnly = [&](auto& list, const Program& program)
    {
        ASSERT_EQ(DuplicateMonProcList(&list, &processes), STATUS_SUCCESS);
        ASSERT_EQ(processes.Count(), 1u);
        EXPECT_EQ(processes[0].ProcessId, program.Id());
    };
    expectOnly(Global.MonitoredParentProcessList, launcher);
    expectOnly(Global.MonitoredProcessList, child);
    FailRoutine("ExAllocatePoolWithTag");
    EXPECT_EQ(DuplicateMonProcList(&Global.MonitoredProcessList, &processes), STATUS_INSUFFICIENT_RESOURCES);
    ResetFailures();
    EXPECT_EQ(processes.Count(), 0u);
}
}
}
