// Programs of the host system as processes.
#include "hosted/machine/process_create.h"
#include "hosted/ps/process_table.h"
#include "tests/support/machine.h"
#include "tests/unit/live/processes/process_notes.h"

#include <gmock/gmock.h>

using namespace hosted;
using testing::ElementsAre;

namespace
{
HANDLE Id(ULONG_PTR value)
{
    return reinterpret_cast<HANDLE>(value);
}

class ProcessAdoptTest : public testing::Test
{
protected:
    Machine machine_;
    ProcessNotes notes_;
};

void NTAPI RefuseAll(PEPROCESS, HANDLE, PPS_CREATE_NOTIFY_INFO information)
{
    if (information != nullptr)
    {
        information->CreationStatus = STATUS_ACCESS_DENIED;
    }
}

TEST_F(ProcessAdoptTest, IsAnnouncedWithAFileThatNamesItsImage)
{
    Process* parent = AdoptProcess({Id(0x4001), Id(1), 1000, L"\\Device\\HarddiskVolume1\\bin\\sh"});
    Process* child;
    {
        const AttachedProcess attached(parent);
        child = AdoptProcess({Id(0x4002), Id(0x4001), 2000, L"\\Device\\HarddiskVolume1\\usr\\bin\\vim"});
    }
    const auto note = notes_.Of(0x4002).front();
    EXPECT_EQ(0x4001, note.Parent);
    EXPECT_EQ(0x4001, note.On);
    EXPECT_EQ("\\Device\\HarddiskVolume1\\usr\\bin\\vim", note.Image);
    EXPECT_EQ("\\usr\\bin\\vim", note.FileName);
    EXPECT_EQ(4, notes_.Of(0x4001).front().On);

    EXPECT_EQ(2000, child->CreateTime);
    EXPECT_EQ(Id(0x4001), child->ParentId);
    EXPECT_EQ("\\Device\\HarddiskVolume1\\usr\\bin\\vim", Narrow(child->ImageNtPath));
    EXPECT_EQ("vim", Narrow(child->ImageFileName));
    Process* found = FindProcess(Id(0x4002));
    EXPECT_EQ(child, found);
    DereferenceObject(found);

    ExitProcess(child);
    ExitProcess(parent);
    EXPECT_THAT(notes_.TextsOf(0x4002), ElementsAre("+ \\Device\\HarddiskVolume1\\usr\\bin\\vim", "-"));
    DereferenceObject(child);
    DereferenceObject(parent);
}

TEST_F(ProcessAdoptTest, AnImageOnNoVolumeComesWithoutAFile)
{
    for (const WideView path : {L"\\Device\\Unreachable\\bin\\sh", L"\\??", L"\\Nowhere\\sh"})
    {
        Process* process = AdoptProcess({Id(0x4001), Id(1), 1000, WideString(path)});
        EXPECT_EQ("none", notes_.All().back().FileName);
        EXPECT_EQ(Narrow(path), notes_.All().back().Image);
        ExitProcess(process);
        DereferenceObject(process);
    }
}

TEST_F(ProcessAdoptTest, CannotBeRefused)
{
    ASSERT_EQ(STATUS_SUCCESS, PsSetCreateProcessNotifyRoutineEx(RefuseAll, FALSE));
    Process* process = AdoptProcess({Id(0x4001), Id(1), 1000, L"\\Device\\HarddiskVolume1\\bin\\sh"});
    ASSERT_EQ(STATUS_SUCCESS, PsSetCreateProcessNotifyRoutineEx(RefuseAll, TRUE));
    EXPECT_FALSE(process->Exited);
    EXPECT_EQ(1u, notes_.All().size());
    ExitProcess(process);
    DereferenceObject(process);
}
}
