// Processes as objects: ids, the table, what a thread plays, look-ups.
#include "hosted/ps/process_table.h"

#include "hosted/ke/failure_injection.h"
#include "hosted/ke/irql.h"
#include "hosted/ps/query_hooks.h"

#include <gmock/gmock.h>

#include <atomic>
#include <thread>

using namespace hosted;
using testing::ElementsAre;

namespace
{
HANDLE Id(ULONG_PTR value)
{
    return reinterpret_cast<HANDLE>(value);
}

class ProcessTest : public testing::Test
{
protected:
    ProcessTest()
    {
        ResetFailures();
        ShutdownProcesses();
    }

    ~ProcessTest() override
    {
        for (Process* process : made_)
        {
            if (!process->Exited)
            {
                RemoveProcess(process);
            }
            DereferenceObject(process);
        }
        ShutdownProcesses();
        EXPECT_EQ("", DescribeLiveObjects());
    }

    Process* Add(WideView name, HANDLE id = nullptr)
    {
        Process* process = CreateProcessObject(
            id == nullptr ? AllocateProcessId() : id, Id(4), WideString(L"\\Device\\Disk\\") + WideString(name), name);
        InsertProcess(process);
        made_.push_back(process);
        return process;
    }

    std::vector<Process*> made_;
};

TEST_F(ProcessTest, SystemHasIdFour)
{
    EXPECT_EQ(Id(4), SystemProcess()->Id);
    EXPECT_EQ(SystemProcess(), CurrentProcess());
    EXPECT_EQ(SystemProcess(), CurrentThread()->Owner);
    EXPECT_EQ(Id(4), PsGetCurrentProcessId());
    EXPECT_EQ(&SystemProcess()->Handles, &CurrentProcessHandles());
}

TEST_F(ProcessTest, IdsAreMultiplesOfFourAndNotReused)
{
    Process* first = Add(L"a.exe");
    Process* second = Add(L"b.exe");
    EXPECT_EQ(0u, reinterpret_cast<ULONG_PTR>(first->Id) % 4);
    EXPECT_GT(second->Id, first->Id);
    const HANDLE old = first->Id;
    RemoveProcess(first);
    EXPECT_NE(old, Add(L"c.exe")->Id);
}

TEST_F(ProcessTest, AnIdCanBeGivenOutAgainOnDemand)
{
    Process* first = Add(L"a.exe", Id(0x500));
    RemoveProcess(first);
    Process* second = Add(L"b.exe", Id(0x500));
    PEPROCESS found = nullptr;
    ASSERT_EQ(STATUS_SUCCESS, PsLookupProcessByProcessId(Id(0x500), &found));
    EXPECT_EQ(second, FromProcess(found));
    ObDereferenceObject(found);
    EXPECT_DEATH(Add(L"c.exe", Id(0x500)), "PROCESS_ID_IN_USE");
}

TEST_F(ProcessTest, AttachingNests)
{
    Process* a = Add(L"a.exe");
    Process* b = Add(L"b.exe");
    {
        const AttachedProcess playA(a);
        Thread* threadOfA = CurrentThread();
        EXPECT_EQ(a, CurrentProcess());
        {
            const AttachedProcess playB(b);
            EXPECT_EQ(b->Id, PsGetCurrentProcessId());
            EXPECT_NE(threadOfA, CurrentThread());
            EXPECT_EQ(&b->Handles, &CurrentProcessHandles());
        }
        EXPECT_EQ(threadOfA, CurrentThread());
        EXPECT_DEATH(ShutdownProcesses(), "ATTACHED_AT_SHUTDOWN");
    }
    EXPECT_EQ(SystemProcess(), CurrentProcess());
}

TEST_F(ProcessTest, TheThreadsIdIsTheOneThatIsPlayed)
{
    Process* a = Add(L"a.exe");
    const HANDLE mine = PsGetCurrentThreadId();
    EXPECT_EQ(CurrentThread()->Id, mine);
    {
        const AttachedProcess playA(a);
        const RaisedIrql raised(HIGH_LEVEL);
        EXPECT_EQ(CurrentThread()->Id, PsGetCurrentThreadId());
        EXPECT_NE(mine, PsGetCurrentThreadId());
    }
    EXPECT_EQ(mine, PsGetCurrentThreadId());
}

TEST_F(ProcessTest, LinuxThreadsPlayDifferentThreads)
{
    Process* a = Add(L"a.exe");
    Thread* mine = CurrentThread();
    HANDLE myThreadId = mine->Id;
    std::thread(
        [a, mine, myThreadId]
        {
            EXPECT_NE(mine, CurrentThread());
            EXPECT_NE(myThreadId, CurrentThread()->Id);
            EXPECT_EQ(SystemProcess(), CurrentProcess());
            const AttachedProcess playA(a);
            EXPECT_EQ(a, CurrentProcess());
        })
        .join();
    EXPECT_EQ(mine, CurrentThread());
    EXPECT_EQ("Process x2, Thread x1", DescribeLiveObjects());
}

TEST_F(ProcessTest, AThreadKeepsItsProcessAlive)
{
    Process* a = CreateProcessObject(Id(0x700), Id(4), L"\\a.exe", L"a.exe");
    Thread* thread = nullptr;
    {
        const AttachedProcess playA(a);
        thread = CurrentThread();
        ReferenceObject(thread);
    }
    DereferenceObject(a);
    EXPECT_EQ(Id(0x700), thread->Owner->Id);
    DereferenceObject(thread);
    EXPECT_EQ("", DescribeLiveObjects());
}

TEST_F(ProcessTest, LookUpFindsOnlyTheRunning)
{
    Process* a = Add(L"a.exe");
    PEPROCESS found = nullptr;
    ASSERT_EQ(STATUS_SUCCESS, PsLookupProcessByProcessId(a->Id, &found));
    EXPECT_EQ(a, FromProcess(found));
    EXPECT_EQ(3, ReferenceCount(a));
    ObDereferenceObject(found);

    found = nullptr;
    EXPECT_EQ(STATUS_INVALID_PARAMETER, PsLookupProcessByProcessId(Id(0), &found));
    EXPECT_EQ(STATUS_INVALID_PARAMETER, PsLookupProcessByProcessId(Id(0x9999), &found));
    RemoveProcess(a);
    EXPECT_TRUE(a->Exited);
    EXPECT_EQ(STATUS_INVALID_PARAMETER, PsLookupProcessByProcessId(a->Id, &found));
    EXPECT_EQ(nullptr, found);
    ASSERT_EQ(STATUS_SUCCESS, PsLookupProcessByProcessId(Id(4), &found));
    EXPECT_EQ(SystemProcess(), FromProcess(found));
    ObDereferenceObject(found);
}

TEST_F(ProcessTest, LookUpFailsByInjectionAndAtAHighLevel)
{
    PEPROCESS found = nullptr;
    FailRoutine("PsLookupProcessByProcessId");
    EXPECT_EQ(STATUS_INVALID_PARAMETER, PsLookupProcessByProcessId(Id(4), &found));
    ResetFailures();
    EXPECT_DEATH(
        {
            const RaisedIrql raised(DISPATCH_LEVEL);
            PsLookupProcessByProcessId(Id(4), &found);
        },
        "PsLookupProcessByProcessId");
}

TEST_F(ProcessTest, AProcessCanEndBetweenSnapshotAndLookUp)
{
    Process* a = Add(L"a.exe");
    std::vector<HANDLE> seen;
    SetBeforeProcessLookup(
        [&](HANDLE id)
        {
            seen.push_back(id);
            RemoveProcess(a);
        });
    PEPROCESS found = nullptr;
    EXPECT_EQ(STATUS_INVALID_PARAMETER, PsLookupProcessByProcessId(a->Id, &found));
    EXPECT_THAT(seen, ElementsAre(a->Id));
}

TEST_F(ProcessTest, TheTableStandsManyThreads)
{
    std::vector<std::thread> threads;
    std::atomic<int> found{0};
    for (int i = 0; i < 4; ++i)
    {
        threads.emplace_back(
            [&found]
            {
                for (int round = 0; round < 50; ++round)
                {
                    Process* process = CreateProcessObject(AllocateProcessId(), nullptr, L"\\x.exe", L"x.exe");
                    InsertProcess(process);
                    {
                        const AttachedProcess play(process);
                        PEPROCESS same = nullptr;
                        if (NT_SUCCESS(PsLookupProcessByProcessId(PsGetCurrentProcessId(), &same)))
                        {
                            found += FromProcess(same) == process;
                            ObDereferenceObject(same);
                        }
                        SnapshotProcesses();
                    }
                    RemoveProcess(process);
                    DereferenceObject(process);
                }
            });
    }
    for (std::thread& thread : threads)
    {
        thread.join();
    }
    EXPECT_EQ(200, found);
    EXPECT_EQ(1u, SnapshotProcesses().size());
}
}
