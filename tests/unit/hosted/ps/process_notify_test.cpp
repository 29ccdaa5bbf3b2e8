// Notifications of processes that come and go.
#include "hosted/ps/process_notify.h"

#include "hosted/ke/failure_injection.h"
#include "hosted/ke/irql.h"
#include "hosted/machine/process_create.h"
#include "tests/support/machine.h"

#include <gmock/gmock.h>

#include <atomic>
#include <condition_variable>
#include <thread>

using namespace hosted;
using testing::ElementsAre;

namespace
{
struct Seen
{
    HANDLE Id;
    bool Exit;
    HANDLE OnProcess;
    HANDLE Parent;
    HANDLE Creator;
    std::string Image;
    std::string CommandLine;
    std::string FileName;
    bool Running; // could be looked up by its id
};

std::vector<Seen> seen;
NTSTATUS answer = STATUS_SUCCESS;
std::function<void()> during;

void NTAPI Watch(PEPROCESS process, HANDLE id, PPS_CREATE_NOTIFY_INFO information)
{
    Seen entry{};
    entry.Id = id;
    entry.Exit = information == nullptr;
    entry.OnProcess = PsGetCurrentProcessId();
    PEPROCESS same = nullptr;
    entry.Running = NT_SUCCESS(PsLookupProcessByProcessId(id, &same)) && same == process;
    if (same != nullptr)
    {
        ObDereferenceObject(same);
    }
    if (information != nullptr)
    {
        EXPECT_EQ(sizeof(*information), information->Size);
        EXPECT_EQ(1u, information->FileOpenNameAvailable);
        entry.Parent = information->ParentProcessId;
        entry.Creator = information->CreatingThreadId.UniqueProcess;
        entry.Image = Narrow(View(*information->ImageFileName));
        entry.CommandLine = Narrow(View(*information->CommandLine));
        entry.FileName = Narrow(View(information->FileObject->FileName));
        information->CreationStatus = answer;
    }
    seen.push_back(entry);
    if (during)
    {
        during();
    }
}

void NTAPI Other(PEPROCESS, HANDLE, PPS_CREATE_NOTIFY_INFO) {}

class ProcessNotifyRoutineTest : public testing::Test
{
protected:
    ProcessNotifyRoutineTest()
    {
        seen.clear();
        answer = STATUS_SUCCESS;
        during = {};
        EXPECT_EQ(STATUS_SUCCESS, PsSetCreateProcessNotifyRoutineEx(Watch, FALSE));
    }

    ~ProcessNotifyRoutineTest() override
    {
        during = {};
        if (RegisteredNotifyRoutines() != 0)
        {
            EXPECT_EQ(STATUS_SUCCESS, PsSetCreateProcessNotifyRoutineEx(Watch, TRUE));
        }
    }

    Machine machine_;
};

TEST_F(ProcessNotifyRoutineTest, RefusesASecondRegistrationAndAnUnknownRemoval)
{
    EXPECT_EQ(STATUS_INVALID_PARAMETER, PsSetCreateProcessNotifyRoutineEx(Watch, FALSE));
    EXPECT_EQ(STATUS_PROCEDURE_NOT_FOUND, PsSetCreateProcessNotifyRoutineEx(Other, TRUE));
    EXPECT_EQ(1u, RegisteredNotifyRoutines());
    FailRoutine("PsSetCreateProcessNotifyRoutineEx");
    EXPECT_EQ(STATUS_INVALID_PARAMETER, PsSetCreateProcessNotifyRoutineEx(Other, FALSE));
    EXPECT_EQ(1u, RegisteredNotifyRoutines());
}

TEST_F(ProcessNotifyRoutineTest, RefusesAnImageWithoutIntegrityChecks)
{
    SetImageForcesIntegrity(false);
    EXPECT_EQ(STATUS_ACCESS_DENIED, PsSetCreateProcessNotifyRoutineEx(Other, FALSE));
    SetImageForcesIntegrity(true);
    EXPECT_EQ(STATUS_SUCCESS, PsSetCreateProcessNotifyRoutineEx(Other, FALSE));
    EXPECT_EQ(STATUS_SUCCESS, PsSetCreateProcessNotifyRoutineEx(Other, TRUE));
}

TEST_F(ProcessNotifyRoutineTest, TellsOfCreationOnTheCreatorsThread)
{
    const Program parent = machine_.StartProcess(L"C:\\Apps\\Parent.exe");
    const Program child = parent.Start(L"C:\\Apps\\Child.exe");
    ASSERT_EQ(2u, seen.size());
    EXPECT_EQ(SystemProcess()->Id, seen[0].Parent);
    const Seen& entry = seen[1];
    EXPECT_EQ(child.Id(), entry.Id);
    EXPECT_FALSE(entry.Exit);
    EXPECT_TRUE(entry.Running);
    EXPECT_EQ(parent.Id(), entry.OnProcess);
    EXPECT_EQ(parent.Id(), entry.Parent);
    EXPECT_EQ(parent.Id(), entry.Creator);
    EXPECT_EQ("\\??\\C:\\Apps\\Child.exe", entry.Image);
    EXPECT_EQ("\"\\??\\C:\\Apps\\Child.exe\"", entry.CommandLine);
    EXPECT_EQ("\\Apps\\Child.exe", entry.FileName);
    EXPECT_EQ("\\Device\\HarddiskVolume1\\Apps\\Child.exe", Narrow(child.Object()->ImageNtPath));
    EXPECT_EQ("Child.exe", Narrow(child.Object()->ImageFileName));
}

TEST_F(ProcessNotifyRoutineTest, ACreatorCanChooseAnotherParent)
{
    const Program parent = machine_.StartProcess(L"C:\\Apps\\Parent.exe");
    const Program broker = machine_.StartProcess(L"C:\\Apps\\Broker.exe");
    ProcessParameters parameters;
    parameters.ImagePath = L"\\??\\C:\\Apps\\Parent.exe";
    parameters.CommandLine = L"parent /again";
    parameters.ParentId = parent.Id();
    parameters.Id = reinterpret_cast<HANDLE>(ULONG_PTR{0x4000});
    const Program child = broker.Start(parameters);
    EXPECT_EQ(0x4000u, child.ProcessId());
    EXPECT_EQ(parent.Id(), seen.back().Parent);
    EXPECT_EQ(broker.Id(), seen.back().Creator);
    EXPECT_EQ("parent /again", seen.back().CommandLine);
    EXPECT_EQ(parent.Id(), child.Object()->ParentId);
}

TEST_F(ProcessNotifyRoutineTest, TellsOfExitOnTheExitingProcess)
{
    const Program program = machine_.StartProcess(L"C:\\Apps\\Editor.exe");
    program.Exit();
    ASSERT_EQ(2u, seen.size());
    EXPECT_TRUE(seen[1].Exit);
    EXPECT_TRUE(seen[1].Running);
    EXPECT_EQ(program.Id(), seen[1].Id);
    EXPECT_EQ(program.Id(), seen[1].OnProcess);
    EXPECT_FALSE(program.IsRunning());
    PEPROCESS gone = nullptr;
    EXPECT_EQ(STATUS_INVALID_PARAMETER, PsLookupProcessByProcessId(program.Id(), &gone));
}

TEST_F(ProcessNotifyRoutineTest, ARoutineCanRefuseACreation)
{
    answer = STATUS_ACCESS_DENIED;
    const Program program = machine_.StartProcess(L"C:\\Apps\\Editor.exe");
    EXPECT_EQ(STATUS_ACCESS_DENIED, program.Status());
    EXPECT_FALSE(program.IsRunning());
    ASSERT_EQ(2u, seen.size());
    EXPECT_TRUE(seen[1].Exit);
    EXPECT_EQ(seen[0].Id, seen[1].Id);
}

TEST_F(ProcessNotifyRoutineTest, AMissingImageStartsNothing)
{
    ProcessParameters parameters;
    parameters.ImagePath = L"\\??\\C:\\Nowhere\\None.exe";
    EXPECT_EQ(STATUS_OBJECT_PATH_NOT_FOUND, machine_.StartProcess(parameters).Status());
    EXPECT_TRUE(seen.empty());
}

TEST_F(ProcessNotifyRoutineTest, RemovalWaitsForARoutineUnderWay)
{
    std::mutex mutex;
    std::condition_variable changed;
    bool inside = false;
    bool letGo = false;
    during = [&]
    {
        std::unique_lock lock(mutex);
        inside = true;
        changed.notify_all();
        changed.wait(lock, [&] { return letGo; });
    };
    std::thread creator([this] { machine_.StartProcess(L"C:\\Apps\\Slow.exe"); });
    {
        std::unique_lock lock(mutex);
        changed.wait(lock, [&] { return inside; });
    }
    std::atomic<bool> finished{false};
    std::thread remover(
        [&]
        {
            EXPECT_EQ(STATUS_SUCCESS, PsSetCreateProcessNotifyRoutineEx(Watch, TRUE));
            EXPECT_TRUE(finished);
        });
    // Gone for everyone else at once, even while the removal waits.
    while (RegisteredNotifyRoutines() != 0)
    {
        std::this_thread::yield();
    }
    {
        const std::lock_guard lock(mutex);
        finished = true;
        letGo = true;
        changed.notify_all();
    }
    creator.join();
    remover.join();
}

TEST_F(ProcessNotifyRoutineTest, StopsAtARoutineThatRemovesItself)
{
    during = [] { PsSetCreateProcessNotifyRoutineEx(Watch, TRUE); };
    EXPECT_DEATH(machine_.StartProcess(L"C:\\Apps\\Editor.exe"), "NOTIFY_ROUTINE_WAITS_FOR_ITSELF");
}

TEST_F(ProcessNotifyRoutineTest, StopsAtARoutineThatReturnsRaised)
{
    during = [] { SetIrql(APC_LEVEL); };
    EXPECT_DEATH(machine_.StartProcess(L"C:\\Apps\\Editor.exe"), "IRQL_UNEXPECTED_VALUE");
}
}
