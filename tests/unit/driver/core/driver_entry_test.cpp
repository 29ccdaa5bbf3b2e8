// The order in which the driver comes up and goes down, and what a failing step changes.

#include "driver/core/filter_registration.h"
#include "driver/core/global_state.h"
#include "driver/core/unload.h"
#include "driver/util/pool.h"
#include "hosted/ex/pool.h"
#include "hosted/flt/filter_manager.h"
#include "hosted/ke/failure_injection.h"
#include "hosted/ps/process_notify.h"
#include "hosted/rtl/debug_print.h"
#include "tests/support/machine.h"

#include <gmock/gmock.h>

extern "C" NTSTATUS NTAPI DriverEntry(PDRIVER_OBJECT driverObject, PUNICODE_STRING registryPath);

namespace
{
using namespace hosted;
using testing::Contains;
using testing::ElementsAre;
using testing::Not;

const char EntryText[] = "Tarnveil Driver Entry \\Registry\\Machine\\System\\CurrentControlSet\\Services\\Tarnveil\n";
// The browser-mode list asks which product is installed; here there is none.
const char DriverNameText[] = "Tarnveil.sys: ";
const char ProductText[] = "Failed to ZwOpenKey. Path = \\Registry\\Machine\\SOFTWARE\\WOW6432Node\\Orvane "
                           "Works\\Hollowbay NTStatus = c0000034\n";
const char VersionText[] = "Tarnveil - OS Version: 0x06010000\n";
const char KeyText[] = "SandboxCryptKey Query c0000034\n";
const char DeviceText[] = "Create NT Device \\Device\\Tarnveil\n";
const char LinkText[] = "Tarnveil - IoCreateSymbolicLink success \\DosDevices\\Tarnveil\n";
const char ReturnText[] = "Tarnveil DriverEntry return 0\n";

std::string Hex(const char* format, NTSTATUS status)
{
    char text[200];
    snprintf(text, sizeof(text), format, static_cast<unsigned>(status));
    return text;
}

MachineOptions Modelling(const SystemModel& system)
{
    MachineOptions options;
    options.System = system;
    return options;
}

// What the filter manager does at an unload, for a driver that has no filter by which it could be asked to.
void UnloadWithoutFilter()
{
    const AttachedProcess system(SystemProcess());
    EXPECT_EQ(UnloadDriver(0), STATUS_SUCCESS);
}

TEST(DriverLoad, PrintsEveryStepInOrder)
{
    Machine machine;
    ASSERT_EQ(machine.LoadDriver(DriverEntry), STATUS_SUCCESS);
    EXPECT_THAT(DebugPrints(),
        ElementsAre(EntryText, DriverNameText, ProductText, VersionText, KeyText, DeviceText, LinkText, ReturnText));
    EXPECT_EQ(Global.ControlDevice, machine.Driver()->DeviceObject);
    EXPECT_NE(Global.Filter, nullptr);
    EXPECT_EQ(Global.EncryptionEnabled, 1u);
    EXPECT_EQ(Global.VerboseTrace, FALSE);
    EXPECT_EQ(Global.KeyLength, 0u);
    EXPECT_TRUE(IsProcessNotifyRegistered());
    ULONG cached = 1;
    EXPECT_EQ(CTGetElementCount(&Global.ProcessCache, &cached), STATUS_SUCCESS);
    EXPECT_EQ(cached, 0u);
}

TEST(DriverLoad, UnloadPrintsItsTwoTextsAndForgetsEverything)
{
    Machine machine;
    machine.Registry().SetString(Machine::ServiceKey, L"SandboxPath", L"\\Device\\HarddiskVolume1\\Sandbox");
    ASSERT_EQ(machine.LoadDriver(DriverEntry), STATUS_SUCCESS);
    machine.ClearDebugPrints();
    EXPECT_EQ(machine.UnloadDriver(), STATUS_SUCCESS);
    EXPECT_THAT(DebugPrints(), ElementsAre("Tarnveil Unload\n", "Tarnveil Unload STATUS_SUCCESS\n"));
    EXPECT_EQ(Global.ControlDevice, nullptr);
    EXPECT_FALSE(IsProcessNotifyRegistered());
    EXPECT_EQ(LivePoolAllocations(), 0u) << DescribeLivePool();
}

TEST(DriverLoad, CanBeRepeated)
{
    Machine machine;
    for (int round = 0; round < 3; ++round)
    {
        machine.ClearDebugPrints();
        EXPECT_EQ(machine.LoadDriver(DriverEntry), STATUS_SUCCESS);
        EXPECT_THAT(DebugPrints(), ElementsAre(EntryText, DriverNameText, ProductText, VersionText, KeyText, DeviceText,
                                       LinkText, ReturnText));
        EXPECT_EQ(machine.UnloadDriver(), STATUS_SUCCESS);
    }
}

// Only the identifier manager speaks while the lists are emptied; no log record is written.
TEST(DriverLoad, EmptiesTheListsAtUnloadWithoutLogRecords)
{
    Machine machine;
    ASSERT_EQ(machine.LoadDriver(DriverEntry), STATUS_SUCCESS);
    Program agent = machine.StartProcess(L"C:\\Agent.exe");
    ProgramEvent event = agent.CreateEvent();
    const ULONG parent = agent.AddParentProcess(L"C:\\a.exe").Value;
    const ULONG process = agent.AddProcess(L"C:\\b.exe").Value;
    const ULONG exclusion = agent.AddExclusion(L"C:\\c.exe").Value;
    Program monitoredParent = machine.StartProcess(L"C:\\a.exe");
    Program monitored = machine.StartProcess(L"C:\\b.exe");
    EXPECT_TRUE(agent.IsUnderSandbox(monitoredParent.ProcessId()));
    EXPECT_TRUE(agent.IsUnderSandbox(monitored.ProcessId()));
    EXPECT_EQ(agent.StartLogging(event, 0xffffffff), STATUS_SUCCESS);
    agent.DrainLog();
    event.Clear();

    machine.ClearDebugPrints();
    EXPECT_EQ(machine.UnloadDriver(), STATUS_SUCCESS);
    auto released = [](ULONG id) { return "[IDMan] ReleaseId = " + std::to_string(id) + "\n"; };
    const char prefix[] = "Tarnveil.sys: ";
    EXPECT_THAT(DebugPrints(), ElementsAre("Tarnveil Unload\n", prefix, released(parent), prefix, released(process),
                                   prefix, released(exclusion), "Tarnveil Unload STATUS_SUCCESS\n"));
    EXPECT_FALSE(event.IsSet());
    const UNICODE_STRING paths[] = {Counted(L"C:\\a.exe"), Counted(L"C:\\b.exe"), Counted(L"C:\\c.exe")};
    ULONG id = 0;
    EXPECT_FALSE(FindSetting(ParentProcessNames, &paths[0], &id));
    EXPECT_FALSE(FindSetting(ProcessNames, &paths[1], &id));
    EXPECT_FALSE(FindSetting(ExclusionProcessNames, &paths[2], &id));
    EXPECT_FALSE(FindMonitoredParent(monitoredParent.Id(), &id));
    EXPECT_TRUE(IsMonitoredProcessListEmpty());
    EXPECT_EQ(LivePoolAllocations(), 0u) << DescribeLivePool();
}

TEST(DriverLoad, PoolIsExecutableUpToWindows7)
{
    Machine machine;
    machine.LoadDriver(DriverEntry);
    EXPECT_EQ(DefaultPoolType, NonPagedPool);
    EXPECT_EQ(DefaultMdlProtection, 0u);
    EXPECT_FALSE(PoolZeroingNative);
    EXPECT_EQ(Global.OsVersion, 0x06010000u);
}

TEST(DriverLoad, PoolIsNotExecutableFromWindows8On)
{
    {
        Machine machine(Modelling(Windows8()));
        machine.LoadDriver(DriverEntry);
        EXPECT_EQ(DefaultPoolType, NonPagedPoolNx);
        EXPECT_EQ(DefaultMdlProtection, 0x40000000u);
        EXPECT_FALSE(PoolZeroingNative);
        EXPECT_THAT(DebugPrints(), Contains("Tarnveil - OS Version: 0x06020000\n"));
    }
    Machine machine(Modelling(Windows10()));
    machine.LoadDriver(DriverEntry);
    EXPECT_EQ(DefaultPoolType, NonPagedPoolNx);
    EXPECT_EQ(DefaultMdlProtection, 0x40000000u);
    EXPECT_TRUE(PoolZeroingNative);
    EXPECT_THAT(DebugPrints(), Contains("Tarnveil - OS Version: 0x0a000000\n"));
}

TEST(DriverLoad, UnknownVersionCountsAsOldAndIsPrinted)
{
    Machine machine;
    FailRoutine("RtlGetVersion", 1, true);
    EXPECT_EQ(machine.LoadDriver(DriverEntry), STATUS_SUCCESS);
    ResetFailures();
    EXPECT_EQ(DefaultPoolType, NonPagedPool);
    EXPECT_EQ(DefaultMdlProtection, 0u);
    EXPECT_EQ(Global.OsVersion, 0u);
    const std::vector<std::string> prints = DebugPrints();
    ASSERT_EQ(prints.size(), 8u);
    EXPECT_THAT(prints[3], testing::MatchesRegex("Tarnveil - RtlGetVersion failed: c[0-9a-f]*\n"));
}

TEST(DriverLoad, WithoutControlDeviceItStillFilters)
{
    Machine machine;
    FailRoutine("IoCreateDevice");
    EXPECT_EQ(machine.LoadDriver(DriverEntry), STATUS_SUCCESS);
    ResetFailures();
    EXPECT_THAT(DebugPrints(),
        ElementsAre(EntryText, DriverNameText, ProductText, VersionText, KeyText, DeviceText, ReturnText));
    EXPECT_EQ(Global.ControlDevice, nullptr);
    EXPECT_NE(Global.Filter, nullptr);
    EXPECT_TRUE(IsProcessNotifyRegistered());
    Program agent = machine.StartProcess(L"C:\\Agent.exe");
    EXPECT_FALSE(NT_SUCCESS(agent.StartDriver()));
    EXPECT_EQ(machine.UnloadDriver(), STATUS_SUCCESS);
}

TEST(DriverLoad, WithoutLinkTheAgentCannotReachTheDevice)
{
    Machine machine;
    FailRoutine("IoCreateSymbolicLink");
    EXPECT_EQ(machine.LoadDriver(DriverEntry), STATUS_SUCCESS);
    ResetFailures();
    EXPECT_THAT(DebugPrints(),
        ElementsAre(EntryText, DriverNameText, ProductText, VersionText, KeyText, DeviceText, ReturnText));
    EXPECT_NE(Global.ControlDevice, nullptr);
}

TEST(DriverLoad, FailedFilterRegistrationFailsTheLoadAndUndoesNothing)
{
    Machine machine;
    FailRoutine("FltRegisterFilter");
    const NTSTATUS status = machine.LoadDriver(DriverEntry);
    ResetFailures();
    EXPECT_FALSE(NT_SUCCESS(status));
    EXPECT_THAT(DebugPrints(), ElementsAre(EntryText, DriverNameText, ProductText, VersionText, KeyText, DeviceText,
                                   LinkText, Hex("FltRegisterFilter fail %x\n", status)));
    EXPECT_NE(Global.ControlDevice, nullptr);
    EXPECT_NE(Global.RegistryPath.Buffer, nullptr);
    EXPECT_FALSE(IsProcessNotifyRegistered());
    UnloadWithoutFilter();
    EXPECT_EQ(LivePoolAllocations(), 0u) << DescribeLivePool();
    machine.AbandonDriver();
}

TEST(DriverLoad, SucceedsWithoutAnActiveFilterWhenFilteringDoesNotStart)
{
    Machine machine;
    FailRoutine("FltStartFiltering");
    EXPECT_EQ(machine.LoadDriver(DriverEntry), STATUS_SUCCESS);
    ResetFailures();
    EXPECT_THAT(DebugPrints(), ElementsAre(EntryText, DriverNameText, ProductText, VersionText, KeyText, DeviceText,
                                   LinkText, "FltStartFiltering fail c000009a\n", ReturnText));
    EXPECT_FALSE(HasInstance(machine.VolumeNamed(L"C:")));
    // The filter was unregistered, and must not be again.
    EXPECT_EQ(Global.Filter, nullptr);
    EXPECT_TRUE(IsProcessNotifyRegistered());
    Program agent = machine.StartProcess(L"C:\\Agent.exe");
    EXPECT_EQ(agent.AddProcess(L"C:\\App.exe").Status, STATUS_SUCCESS);
    EXPECT_TRUE(agent.IsUnderSandbox(machine.StartProcess(L"C:\\App.exe").ProcessId()));

    UnloadWithoutFilter();
    EXPECT_FALSE(IsProcessNotifyRegistered());
    EXPECT_EQ(LivePoolAllocations(), 0u) << DescribeLivePool();
}

// The last two calls of a load that can fail are the start of filtering and the process routine's registration.
TEST(DriverLoad, FailsWhenNeitherFilteringNorTheProcessRoutineStarts)
{
    uint64_t calls = 0;
    {
        Machine machine;
        ResetFailures();
        EXPECT_EQ(machine.LoadDriver(DriverEntry), STATUS_SUCCESS);
        calls = FallibleCalls();
    }
    Machine machine;
    ResetFailures();
    FailFromCall(calls - 1);
    const NTSTATUS status = machine.LoadDriver(DriverEntry);
    EXPECT_EQ(InjectedFailures(), 2u);
    ResetFailures();
    EXPECT_FALSE(NT_SUCCESS(status));
    EXPECT_THAT(DebugPrints(),
        ElementsAre(EntryText, DriverNameText, ProductText, VersionText, KeyText, DeviceText, LinkText,
            "FltStartFiltering fail c000009a\n", Hex("Tarnveil - PsSetCreateProcessNotifyRoutineEx - %08x\n", status),
            Hex("Tarnveil DriverEntry return %x\n", status)));
    UnloadWithoutFilter();
    EXPECT_EQ(LivePoolAllocations(), 0u) << DescribeLivePool();
    machine.AbandonDriver();
}

TEST(DriverLoad, FailedProcessRoutineFailsTheLoadAlthoughFilteringRuns)
{
    Machine machine;
    FailRoutine("PsSetCreateProcessNotifyRoutineEx");
    const NTSTATUS status = machine.LoadDriver(DriverEntry);
    ResetFailures();
    EXPECT_FALSE(NT_SUCCESS(status));
    EXPECT_THAT(DebugPrints(), ElementsAre(EntryText, DriverNameText, ProductText, VersionText, KeyText, DeviceText,
                                   LinkText, Hex("Tarnveil - PsSetCreateProcessNotifyRoutineEx - %08x\n", status),
                                   Hex("Tarnveil DriverEntry return %x\n", status)));
    EXPECT_NE(Global.Filter, nullptr);
    EXPECT_FALSE(IsProcessNotifyRegistered());
    machine.AbandonDriver();
}

TEST(DriverLoad, UnloadGoesOnWhenTheProcessRoutineRefusesRemoval)
{
    Machine machine;
    ASSERT_EQ(machine.LoadDriver(DriverEntry), STATUS_SUCCESS);
    machine.ClearDebugPrints();
    FailRoutine("PsSetCreateProcessNotifyRoutineEx");
    EXPECT_EQ(machine.UnloadDriver(), STATUS_SUCCESS);
    ResetFailures();
    const std::vector<std::string> prints = DebugPrints();
    ASSERT_EQ(prints.size(), 3u);
    EXPECT_EQ(prints[0], "Tarnveil Unload\n");
    EXPECT_THAT(prints[1], testing::MatchesRegex("Tarnveil - PsSetCreateProcessNotifyRoutineEx - c[0-9a-f]*\n"));
    EXPECT_EQ(prints[2], "Tarnveil Unload STATUS_SUCCESS\n");
    EXPECT_TRUE(IsProcessNotifyRegistered());
    EXPECT_EQ(Global.ControlDevice, nullptr);
    ResetNotifyRoutines();
}

TEST(DriverLoad, AttachesToStoreFileSystemsOnly)
{
    EXPECT_EQ(InstanceSetup(nullptr, 0, FILE_DEVICE_DISK_FILE_SYSTEM, FLT_FSTYPE_NTFS), STATUS_SUCCESS);
    for (DEVICE_TYPE kind : {FILE_DEVICE_NETWORK_FILE_SYSTEM, FILE_DEVICE_CD_ROM_FILE_SYSTEM, FILE_DEVICE_DISK})
    {
        EXPECT_EQ(InstanceSetup(nullptr, 0, kind, FLT_FSTYPE_NTFS), static_cast<NTSTATUS>(0xC01C000F));
    }
}

TEST(DriverLoad, VolumesThatAreNoLocalDisksGetNoInstance)
{
    Machine machine;
    VolumeOptions disc;
    disc.DeviceName = L"\\Device\\CdRom0";
    disc.DosName = L"D:";
    disc.Kind = FILE_DEVICE_CD_ROM_FILE_SYSTEM;
    machine.AddVolume(disc);
    VolumeOptions network;
    network.DeviceName = L"\\Device\\Mup";
    network.DosName = L"";
    network.Kind = FILE_DEVICE_NETWORK_FILE_SYSTEM;
    machine.AddVolume(network);
    ASSERT_EQ(machine.LoadDriver(DriverEntry), STATUS_SUCCESS);
    EXPECT_TRUE(HasInstance(machine.VolumeNamed(L"C:")));
    EXPECT_FALSE(HasInstance(machine.VolumeNamed(L"D:")));
    EXPECT_FALSE(HasInstance(machine.VolumeNamed(L"\\Device\\Mup")));
    // One that comes later is asked about too.
    VolumeOptions stick;
    stick.DeviceName = L"\\Device\\HarddiskVolume2";
    stick.DosName = L"E:";
    machine.AddVolume(stick);
    EXPECT_TRUE(HasInstance(machine.VolumeNamed(L"E:")));
}

TEST(DriverLoad, StartedChangesNothingAboutFiltering)
{
    Machine machine;
    machine.Registry().SetString(Machine::ServiceKey, L"SandboxPath", L"\\Device\\HarddiskVolume1\\Sandbox");
    ASSERT_EQ(machine.PutOnDisk(L"C:\\Sandbox\\plan.txt", "plan"), STATUS_SUCCESS);
    ASSERT_EQ(machine.LoadDriver(DriverEntry), STATUS_SUCCESS);
    Program agent = machine.StartProcess(L"C:\\Agent.exe");
    EXPECT_EQ(agent.Open(L"C:\\Sandbox\\plan.txt").Status(), STATUS_ACCESS_DENIED);
    for (int round = 0; round < 3; ++round)
    {
        EXPECT_EQ(agent.StartDriver(), STATUS_SUCCESS);
        EXPECT_EQ(agent.Open(L"C:\\Sandbox\\plan.txt").Status(), STATUS_ACCESS_DENIED);
        EXPECT_EQ(agent.StopDriver(), STATUS_SUCCESS);
        EXPECT_EQ(agent.Open(L"C:\\Sandbox\\plan.txt").Status(), STATUS_ACCESS_DENIED);
    }
}

TEST(DriverLoad, RegistersItsCallbacksInOrder)
{
    FLT_REGISTRATION registration;
    BuildFilterRegistration(&registration, nullptr);
    EXPECT_EQ(registration.Version, 0x0202);
    EXPECT_EQ(registration.Flags, 0u);
    EXPECT_EQ(registration.InstanceSetupCallback, &InstanceSetup);
    EXPECT_EQ(registration.ContextRegistration[0].ContextType, FLT_STREAM_CONTEXT);
    EXPECT_EQ(registration.ContextRegistration[0].PoolTag, 0x76726154u);
    EXPECT_EQ(registration.ContextRegistration[1].ContextType, FLT_CONTEXT_END);
    const UCHAR majors[] = {IRP_MJ_CREATE, IRP_MJ_WRITE, IRP_MJ_READ, IRP_MJ_SET_INFORMATION};
    for (size_t i = 0; i < 4; ++i)
    {
        const FLT_OPERATION_REGISTRATION& operation = registration.OperationRegistration[i];
        EXPECT_EQ(operation.MajorFunction, majors[i]);
        EXPECT_EQ(operation.Flags, 0u);
        EXPECT_NE(operation.PreOperation, nullptr);
        EXPECT_NE(operation.PostOperation, nullptr);
    }
    EXPECT_EQ(registration.OperationRegistration[4].MajorFunction, IRP_MJ_OPERATION_END);
}
}
