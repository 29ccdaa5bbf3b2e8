// Machines without a driver: programs, files, what is left behind.
#include "tests/support/machine.h"

#include "hosted/cc/cache.h"
#include "hosted/ke/failure_injection.h"
#include "hosted/ob/name_space.h"

#include <gmock/gmock.h>

#include <latch>
#include <thread>

using namespace hosted;
using testing::ElementsAre;
using testing::HasSubstr;

namespace
{
std::vector<std::string> Names(const std::vector<DirectoryEntry>& entries)
{
    std::vector<std::string> names;
    for (const DirectoryEntry& entry : entries)
    {
        if (entry.Name != "." && entry.Name != "..")
        {
            names.push_back(entry.Name);
        }
    }
    return names;
}

class MachineTest : public testing::Test
{
protected:
    MachineTest() { machine_.MakeFolder(L"C:\\Data"); }

    Machine machine_;
    Program editor_ = machine_.StartProcess(L"C:\\Apps\\Editor.exe");
};

TEST_F(MachineTest, BootsWithOneVolumeAndStartsPrograms)
{
    EXPECT_EQ(STATUS_SUCCESS, editor_.Status());
    EXPECT_TRUE(editor_.IsRunning());
    EXPECT_TRUE(machine_.DiskHas(L"C:\\Apps\\Editor.exe"));
    EXPECT_TRUE(machine_.DiskHas(L"\\Device\\HarddiskVolume1\\Apps\\Editor.exe"));
    EXPECT_FALSE(machine_.DiskHas(L"C:\\Apps\\Other.exe"));
    EXPECT_FALSE(machine_.DriverLoaded());
    EXPECT_EQ(STATUS_INVALID_DEVICE_REQUEST, machine_.UnloadDriver());
}

TEST_F(MachineTest, WritesReachTheDiskWhenFlushed)
{
    ProgramFile file = editor_.Create(L"C:\\Data\\plan.txt");
    ASSERT_EQ(STATUS_SUCCESS, file.Status());
    EXPECT_EQ(static_cast<ULONG_PTR>(FILE_CREATED), file.Information());
    EXPECT_EQ(STATUS_SUCCESS, file.Write("attack at dawn"));
    EXPECT_EQ(14u, file.Information());
    EXPECT_EQ(14, file.Size());
    EXPECT_EQ("at d", file.Read(7, 4));
    EXPECT_EQ("attack at dawn", file.ReadAll(5));
    EXPECT_EQ(STATUS_SUCCESS, file.Status());
    EXPECT_EQ(STATUS_SUCCESS, file.Flush());
    EXPECT_EQ("attack at dawn", machine_.Disk(L"C:\\Data\\plan.txt"));
    EXPECT_EQ("", file.Read(14, 4));
    EXPECT_EQ(STATUS_END_OF_FILE, file.Status());
}

TEST_F(MachineTest, TheLazyWriterFlushesWhatNobodyFlushed)
{
    ProgramFile file = editor_.Create(L"C:\\Data\\lazy.txt");
    file.Write("later");
    machine_.FlushAll();
    EXPECT_EQ("later", machine_.Disk(L"C:\\Data\\lazy.txt"));
}

TEST_F(MachineTest, OpensReportTheirStatus)
{
    EXPECT_EQ(STATUS_OBJECT_NAME_NOT_FOUND, editor_.Open(L"C:\\Data\\none.txt").Status());
    EXPECT_EQ(STATUS_OBJECT_PATH_NOT_FOUND, editor_.Open(L"C:\\None\\none.txt").Status());
    ProgramFile missing = editor_.OpenForReading(L"C:\\Data\\none.txt");
    EXPECT_FALSE(missing.IsOpen());
    EXPECT_EQ("", missing.Read(0, 4));
    EXPECT_EQ(STATUS_INVALID_HANDLE, missing.Status());
    EXPECT_EQ(STATUS_INVALID_HANDLE, missing.Close());
}

TEST_F(MachineTest, AFileIsFoundByNameByIdAndRelativeToItsFolder)
{
    ULONGLONG id = 0;
    {
        ProgramFile file = editor_.Create(L"C:\\Data\\one.txt");
        file.Write("one");
        id = file.FileId();
        EXPECT_NE(0u, id);
    }
    ProgramFile folder = editor_.OpenDirectory(L"C:\\Data");
    ASSERT_EQ(STATUS_SUCCESS, folder.Status());
    ProgramFile relative = editor_.OpenRelative(folder, L"one.txt");
    EXPECT_EQ("one", relative.ReadAll());
    ProgramFile byId = editor_.OpenById(L"C:", id);
    EXPECT_EQ("one", byId.ReadAll());
}

TEST_F(MachineTest, StreamsAreFilesOfTheirOwn)
{
    editor_.Create(L"C:\\Data\\two.txt").Write("data");
    editor_.Create(L"C:\\Data\\two.txt:notes").Write("notes");
    machine_.FlushAll();
    EXPECT_EQ("data", machine_.Disk(L"C:\\Data\\two.txt"));
    EXPECT_EQ("notes", machine_.Disk(L"C:\\Data\\two.txt:notes"));
}

TEST_F(MachineTest, FoldersAreListed)
{
    editor_.Create(L"C:\\Data\\a.txt").Write("12345");
    editor_.Create(L"C:\\Data\\a rather long name.document");
    ProgramFile folder = editor_.OpenDirectory(L"C:\\Data");
    const auto entries = folder.List();
    EXPECT_EQ(STATUS_SUCCESS, folder.Status());
    EXPECT_THAT(Names(entries), testing::UnorderedElementsAre("a.txt", "a rather long name.document"));
    for (const DirectoryEntry& entry : entries)
    {
        if (entry.Name == "a.txt")
        {
            EXPECT_EQ(5, entry.Size);
            EXPECT_EQ("", entry.ShortName);
        }
        else if (entry.Name != "." && entry.Name != "..")
        {
            EXPECT_EQ("ARATHE~1.DOC", entry.ShortName);
        }
    }
    EXPECT_THAT(Names(editor_.OpenDirectory(L"C:\\Data").List(L"*.txt")), ElementsAre("a.txt"));
}

TEST_F(MachineTest, FilesAreRenamedAndDeleted)
{
    ProgramFile file = editor_.Create(L"C:\\Data\\old.txt");
    file.Write("kept");
    EXPECT_EQ(STATUS_SUCCESS, file.Rename(L"new.txt"));
    EXPECT_EQ(STATUS_SUCCESS, file.Rename(L"C:\\Data\\newer.txt"));
    EXPECT_EQ(STATUS_SUCCESS, file.Flush());
    EXPECT_EQ("kept", machine_.Disk(L"C:\\Data\\newer.txt"));
    EXPECT_FALSE(machine_.DiskHas(L"C:\\Data\\old.txt"));
    EXPECT_EQ(STATUS_SUCCESS, file.Delete());
    EXPECT_EQ(STATUS_SUCCESS, file.Close());
    EXPECT_FALSE(machine_.DiskHas(L"C:\\Data\\newer.txt"));
}

TEST_F(MachineTest, NonCachedTransfersMoveSectors)
{
    editor_.Create(L"C:\\Data\\sectors.bin").Write(std::string(1024, 's'));
    ProgramFile file = editor_.OpenNonCached(L"C:\\Data\\sectors.bin");
    EXPECT_EQ(std::string(512, 's'), file.Read(512, 512));
    EXPECT_EQ(STATUS_SUCCESS, file.Write(std::string(512, 'n'), 512));
    EXPECT_EQ(std::string(512, 's') + std::string(512, 'n'), machine_.Disk(L"C:\\Data\\sectors.bin"));
    EXPECT_EQ(STATUS_INVALID_PARAMETER, file.Write("odd", 0));
}

TEST_F(MachineTest, MappedViewsShareTheCache)
{
    ProgramFile file = editor_.Create(L"C:\\Data\\mapped.txt");
    file.Write("0123456789");
    MappedView view = file.MapView();
    ASSERT_EQ(STATUS_SUCCESS, view.Status());
    EXPECT_EQ("345", view.Read(3, 3));
    EXPECT_EQ(STATUS_SUCCESS, view.Write("XYZ", 3));
    EXPECT_EQ("012XYZ6789", file.ReadAll());
    file.Flush();
    EXPECT_EQ("012XYZ6789", machine_.Disk(L"C:\\Data\\mapped.txt"));
    EXPECT_EQ("", view.Read(PAGE_SIZE, 1));
    EXPECT_EQ(STATUS_IN_PAGE_ERROR, view.Status());
    view.Unmap();
    EXPECT_EQ(STATUS_INVALID_HANDLE, view.Write("a"));
    EXPECT_EQ(STATUS_INVALID_HANDLE, editor_.OpenDirectory(L"C:\\Data").MapView().Status());
}

TEST_F(MachineTest, SizesChange)
{
    ProgramFile file = editor_.Create(L"C:\\Data\\size.txt");
    file.Write("0123456789");
    EXPECT_EQ(STATUS_SUCCESS, file.SetEndOfFile(4));
    EXPECT_EQ(4, file.Size());
    EXPECT_EQ("0123", file.ReadAll());
}

TEST_F(MachineTest, ExitClosesWhatAProgramHasOpen)
{
    ProgramFile file = editor_.Create(L"C:\\Data\\left.txt");
    MappedView view = file.MapView();
    const ProgramEvent event = editor_.CreateEvent();
    file.Write("left");
    editor_.Exit();
    EXPECT_FALSE(file.IsOpen());
    EXPECT_EQ(STATUS_INVALID_HANDLE, file.Write("more"));
    EXPECT_EQ("", view.Read(0, 1));
    machine_.Remount(L"C:");
    EXPECT_EQ("left", machine_.Disk(L"C:\\Data\\left.txt"));
    editor_.Exit();
    EXPECT_DEATH(editor_.Open(L"C:\\Data\\left.txt"), "PROGRAM_NOT_RUNNING");
}

TEST_F(MachineTest, EventsAreSignalledByTheirHandles)
{
    ProgramEvent event = editor_.CreateEvent();
    void* body = nullptr;
    editor_.As(
        [&] { return CurrentProcessHandles().Reference(event.Handle(), READ_CONTROL, &EventType, UserMode, &body); });
    ASSERT_EQ(event.Object(), body);
    EXPECT_FALSE(event.IsSet());
    KeSetEvent(static_cast<PKEVENT>(body), 0, FALSE);
    EXPECT_TRUE(event.IsSet());
    EXPECT_TRUE(event.Wait());
    EXPECT_FALSE(event.IsSet());
    DereferenceObject(body);
    event.CloseHandle();
    EXPECT_EQ(STATUS_INVALID_HANDLE,
        editor_.As([&] { return CurrentProcessHandles().Reference(event.Handle(), 0, &EventType, UserMode, &body); }));
}

TEST_F(MachineTest, FilesCanBePutOnTheDiskBeneath)
{
    const std::string bytes(5000, 'p');
    EXPECT_EQ(STATUS_SUCCESS, machine_.PutOnDisk(L"C:\\Put\\Here\\file.bin", bytes));
    EXPECT_EQ(bytes, machine_.Disk(L"C:\\Put\\Here\\file.bin"));
    EXPECT_EQ(bytes, editor_.OpenForReading(L"C:\\Put\\Here\\file.bin").ReadAll());
    EXPECT_EQ(STATUS_SUCCESS, machine_.PutOnDisk(L"C:\\Put\\Here\\file.bin", "short"));
    EXPECT_EQ("short", editor_.OpenForReading(L"C:\\Put\\Here\\file.bin").ReadAll());
    EXPECT_EQ(STATUS_NO_SUCH_DEVICE, machine_.PutOnDisk(L"X:\\file.bin", "none"));
    EXPECT_EQ(STATUS_SUCCESS, machine_.PutOnDisk(L"C:\\Put\\Here\\file.bin:notes", "stream"));
    EXPECT_EQ("stream", machine_.Disk(L"C:\\Put\\Here\\file.bin:notes"));
    EXPECT_EQ(STATUS_FILE_IS_A_DIRECTORY, machine_.PutOnDisk(L"C:\\Put\\Here", "none"));
}

TEST_F(MachineTest, WhatIsPutOnTheDiskReplacesWhatTheCacheHeld)
{
    editor_.Create(L"C:\\Data\\old.txt").Write(std::string(9000, 'o'));
    const SIZE_T cached = CachedBytes();
    EXPECT_NE(0u, cached) << "dirty, and nobody has it open";
    const std::string bytes(4999, 'n');
    EXPECT_EQ(STATUS_SUCCESS, machine_.PutOnDisk(L"C:\\Data\\old.txt", bytes));
    EXPECT_EQ(0u, CachedBytes());
    EXPECT_EQ(bytes, machine_.Disk(L"C:\\Data\\old.txt"));
    machine_.FlushAll();
    EXPECT_EQ(bytes, machine_.Disk(L"C:\\Data\\old.txt"));
    EXPECT_EQ(bytes, editor_.OpenForReading(L"C:\\Data\\old.txt").ReadAll());
    machine_.Remount(L"C:");
    EXPECT_EQ(bytes, machine_.Disk(L"C:\\Data\\old.txt"));
}

TEST_F(MachineTest, NothingIsPutUnderAnOpenFile)
{
    ProgramFile file = editor_.Create(L"C:\\Data\\open.txt");
    file.Write("mine");
    EXPECT_EQ(STATUS_SHARING_VIOLATION, machine_.PutOnDisk(L"C:\\Data\\open.txt", "theirs"));
    EXPECT_EQ("mine", file.ReadAll());
    file.Flush();
    EXPECT_EQ("mine", machine_.Disk(L"C:\\Data\\open.txt"));
}

TEST_F(MachineTest, SeveralThreadsWorkAtOnce)
{
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i)
    {
        threads.emplace_back(
            [this, i]
            {
                const Program program = machine_.StartProcess(L"C:\\Apps\\Worker.exe");
                const WideString path = WideString(L"C:\\Data\\file") + static_cast<WCHAR>(L'0' + i);
                for (int round = 0; round < 10; ++round)
                {
                    ProgramFile file = program.Create(path);
                    EXPECT_EQ(STATUS_SUCCESS, file.Write(std::string(6000, static_cast<char>('a' + round))));
                    EXPECT_EQ(std::string(100, static_cast<char>('a' + round)), file.Read(5900, 200));
                }
                program.Exit();
            });
    }
    for (std::thread& thread : threads)
    {
        thread.join();
    }
}

TEST_F(MachineTest, ProgramsOfOneNewImageStartSideBySide)
{
    for (int round = 0; round < 100; ++round)
    {
        const WideString image = L"C:\\Apps" + Widen(std::to_string(round)) + L"\\Worker.exe";
        std::vector<std::thread> threads;
        std::latch together(4);
        for (int i = 0; i < 4; ++i)
        {
            threads.emplace_back(
                [&]
                {
                    together.arrive_and_wait();
                    const Program program = machine_.StartProcess(image);
                    EXPECT_EQ(STATUS_SUCCESS, program.Status());
                    program.Exit();
                });
        }
        for (std::thread& thread : threads)
        {
            thread.join();
        }
    }
}

TEST_F(MachineTest, AFolderInUseTakesFilesOnTheDisk)
{
    ProgramFile folder = editor_.OpenDirectory(L"C:\\Data");
    ASSERT_EQ(STATUS_SUCCESS, folder.Status());
    EXPECT_EQ(STATUS_SUCCESS, machine_.PutOnDisk(L"C:\\Data\\beneath.txt", "beneath"));
    EXPECT_EQ("beneath", machine_.Disk(L"C:\\Data\\beneath.txt"));
}

TEST_F(MachineTest, AProgramEndsWhenItIsLookedUp)
{
    const Program other = machine_.StartProcess(L"C:\\Apps\\Other.exe");
    machine_.ExitAtLookup(editor_);
    PEPROCESS found = nullptr;
    ASSERT_EQ(STATUS_SUCCESS, PsLookupProcessByProcessId(other.Id(), &found));
    ObDereferenceObject(found);
    EXPECT_TRUE(editor_.IsRunning());
    EXPECT_EQ(STATUS_INVALID_PARAMETER, PsLookupProcessByProcessId(editor_.Id(), &found));
    EXPECT_FALSE(editor_.IsRunning());
    EXPECT_TRUE(other.IsRunning());
}

TEST_F(MachineTest, TheClockIsSet)
{
    machine_.SetTime(42);
    LARGE_INTEGER time;
    KeQuerySystemTime(&time);
    EXPECT_EQ(42, time.QuadPart);
}

TEST_F(MachineTest, TheProductKeyTakesLists)
{
    machine_.Registry().SetMultiString(Machine::ProductKey, L"Parents", {L"one.exe", L"two.exe"});
    const auto value = machine_.Registry().GetValue(
        L"\\registry\\machine\\SOFTWARE\\WOW6432Node\\Orvane Works\\Hollowbay", L"parents");
    ASSERT_TRUE(value.has_value());
    EXPECT_EQ(static_cast<ULONG>(REG_MULTI_SZ), value->Type);
    const WideView expected(L"one.exe\0two.exe\0", 17);
    ASSERT_EQ((expected.size()) * sizeof(WCHAR), value->Bytes.size());
    EXPECT_EQ(0, __builtin_memcmp(expected.data(), value->Bytes.data(), value->Bytes.size()));
}

TEST(MachineVolumeTest, VolumesHaveKindsAndLetters)
{
    VolumeOptions disk;
    VolumeOptions second{.DeviceName = L"\\Device\\HarddiskVolume2", .DosName = L""};
    VolumeOptions network{.DeviceName = L"\\Device\\Mup", .DosName = L"UNC", .Kind = FILE_DEVICE_NETWORK_FILE_SYSTEM};
    Machine machine({.Volumes = {disk, second, network}});
    EXPECT_NE(nullptr, machine.VolumeNamed(L"C:")->Vpb);
    EXPECT_EQ(machine.VolumeNamed(L"\\device\\harddiskvolume2")->DosName.size(), 0u);
    EXPECT_EQ(nullptr, machine.VolumeNamed(L"UNC")->Vpb);
    machine.PutOnDisk(L"UNC\\server\\share\\tool.exe", "");
    const Program program = machine.StartProcess(L"UNC\\server\\share\\tool.exe");
    EXPECT_EQ(STATUS_SUCCESS, program.Status());
    EXPECT_EQ("\\Device\\Mup\\server\\share\\tool.exe", Narrow(program.Object()->ImageNtPath));
    EXPECT_DEATH(machine.VolumeNamed(L"Q:"), "NO_SUCH_VOLUME");
}

TEST(MachineLifeTest, OneAtATimeAndAgain)
{
    {
        const Machine first;
        EXPECT_DEATH(Machine(), "TWO_MACHINES");
    }
    Machine second;
    const Program program = second.StartProcess(L"C:\\Apps\\Editor.exe");
    second.Shutdown();
    EXPECT_EQ("", second.Leaks());
}

TEST(MachineLifeTest, BootForgetsTheRunBefore)
{
    {
        Machine machine({.System = Windows10()});
        machine.Registry().SetDword(Machine::ServiceKey, L"Value", 1);
        FailFromCall(1);
        EXPECT_EQ(10u, Model().MajorVersion);
    }
    const Machine machine;
    EXPECT_EQ(6u, Model().MajorVersion);
    EXPECT_TRUE(machine.Registry().KeyExists(Machine::ServiceKey));
    EXPECT_FALSE(machine.Registry().GetValue(Machine::ServiceKey, L"Value").has_value());
    EXPECT_FALSE(InjectFailure("any"));
}

std::string reported;

TEST(MachineLifeTest, WhatIsLeftBehindIsReported)
{
    void* pool = nullptr;
    void* event = nullptr;
    {
        Machine machine;
        SetLeakHandler([](const std::string& leaks) { reported = leaks; });
        pool = ExAllocatePoolWithTag(NonPagedPool, 40, 'kaeL');
        event = CreateObject(EventType, sizeof(KEVENT));
    }
    SetLeakHandler([](const std::string& leaks) { ADD_FAILURE() << leaks; });
    EXPECT_THAT(reported, HasSubstr("Leak: 1 allocation"));
    EXPECT_THAT(reported, HasSubstr("Event x1"));
    ExFreePoolWithTag(pool, 'kaeL');
    DereferenceObject(event);
}
}
