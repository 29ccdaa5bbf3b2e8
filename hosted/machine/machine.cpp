#include "hosted/machine/machine.h"

#include "hosted/cc/cache.h"
#include "hosted/ke/fast_mutex.h"
#include "hosted/flt/filter_manager.h"
#include "hosted/ke/bug_check.h"
#include "hosted/ke/failure_injection.h"
#include "hosted/ke/system_time.h"
#include "hosted/machine/boot.h"
#include "hosted/machine/control_device.h"
#include "hosted/machine/disk_access.h"
#include "hosted/machine/program_state.h"
#include "hosted/ob/name_space.h"
#include "hosted/machine/process_create.h"
#include "hosted/ps/process_notify.h"
#include "hosted/ps/query_hooks.h"
#include "hosted/rtl/debug_print.h"

#include <algorithm>
#include <ranges>
#include <utility>

namespace hosted
{
namespace
{
constexpr WideView DriverName = L"\\FileSystem\\Tarnveil";

void StopOnLeaks(const std::string& leaks)
{
    BugCheck("LEFT_BEHIND", "at the end of the machine:\n%s", leaks.c_str());
}

void (*leakHandler)(const std::string&) = StopOnLeaks;

bool IsNamed(const VolumeOptions& options, WideView name)
{
    return EqualNoCase(options.DosName, name) || EqualNoCase(options.DeviceName, name);
}
}

void SetLeakHandler(void (*handler)(const std::string&))
{
    leakHandler = handler;
}

Machine::Machine(MachineOptions options)
{
    ResetKernel(options.System);
    SystemRegistry().CreateKey(ServiceKey);
    // After everything that a first use of the processes makes.
    CurrentThread();
    atBoot_ = TakeInventory();
    for (VolumeOptions& volume : options.Volumes)
    {
        AddVolume(std::move(volume));
    }
}

Machine::~Machine()
{
    Shutdown();
    const std::string leaks = abandoned_ ? std::string() : Leaks();
    ReleaseKernel();
    if (!leaks.empty())
    {
        leakHandler(leaks);
    }
}

NTSTATUS Machine::LoadDriver(DRIVER_INITIALIZE* entry, WideView registryPath)
{
    if (driver_ != nullptr)
    {
        BugCheck("DRIVER_LOADED_TWICE", "a driver is there already");
    }
    ResetInnermost();
    LearnInnermost();
    ForgetLastUnload();
    driver_ = CreateDriverObject(DriverName);
    const NTSTATUS status = StartDriver(driver_, entry, registryPath);
    loaded_ = NT_SUCCESS(status);
    return status;
}

NTSTATUS Machine::UnloadDriver()
{
    return UnloadBy(UnloadFilter);
}

NTSTATUS Machine::UnloadWithoutFilter()
{
    return UnloadBy(hosted::UnloadWithoutFilter);
}

NTSTATUS Machine::UnloadBy(NTSTATUS (*unload)())
{
    if (!loaded_)
    {
        return STATUS_INVALID_DEVICE_REQUEST;
    }
    NTSTATUS status;
    {
        const AttachedProcess system(SystemProcess());
        status = unload();
    }
    if (NT_SUCCESS(status))
    {
        loaded_ = false;
        UnlinkDriver();
    }
    return status;
}

void Machine::AbandonDriver()
{
    if (driver_ == nullptr || loaded_)
    {
        BugCheck("DRIVER_NOT_ABANDONED", "only a driver whose load failed can be abandoned");
    }
    const AttachedProcess system(SystemProcess());
    abandoned_ = true;
    // Where a filter was registered, its own unload does the most.
    if (!NT_SUCCESS(UnloadFilter()))
    {
        hosted::UnloadWithoutFilter();
    }
    ResetNotifyRoutines();
    RemoveSymbolicLink(ControlDevicePath);
    while (driver_->DeviceObject != nullptr)
    {
        IoDeleteDevice(driver_->DeviceObject);
    }
    UnlinkDriver();
}

void Machine::UnlinkDriver()
{
    DereferenceObject(driver_);
    driver_ = nullptr;
    ResetInnermost();
}

Program Machine::StartProcess(WideView image)
{
    InstallImage(image);
    ProcessParameters parameters;
    parameters.ImagePath = NtPath(image);
    return StartProcess(parameters);
}

Program Machine::StartProcess(WideView image, const Program& parent)
{
    return parent.Start(image);
}

Program Machine::StartProcess(const ProcessParameters& parameters)
{
    const AttachedProcess system(SystemProcess());
    return Program::Launch(parameters);
}

void Machine::ExitAtLookup(const Program& program)
{
    SetBeforeProcessLookup(
        [program, id = program.Id()](HANDLE asked)
        {
            if (asked == id)
            {
                program.Exit();
            }
        });
}

std::string Machine::Disk(WideView path) const
{
    std::string bytes;
    return ReadDiskFile(path, &bytes) ? bytes : std::string();
}

bool Machine::DiskHas(WideView path) const
{
    std::string bytes;
    return ReadDiskFile(path, &bytes);
}

NTSTATUS Machine::PutOnDisk(WideView path, std::string_view bytes)
{
    return WriteDiskFile(path, bytes);
}

NTSTATUS Machine::MakeFolder(WideView path)
{
    return MakeDiskFolder(path);
}

void Machine::FlushAll()
{
    const AttachedProcess system(SystemProcess());
    LazyWrite();
}

Volume* Machine::VolumeNamed(WideView name) const
{
    for (const auto& volume : volumes_)
    {
        if (IsNamed(volume->Options(), name))
        {
            return volume->Mounted();
        }
    }
    BugCheck("NO_SUCH_VOLUME", "%s", Narrow(name).c_str());
}

void Machine::Remount(WideView name)
{
    const AttachedProcess system(SystemProcess());
    const auto found =
        std::ranges::find_if(volumes_, [name](const auto& volume) { return IsNamed(volume->Options(), name); });
    if (found == volumes_.end())
    {
        BugCheck("NO_SUCH_VOLUME", "%s", Narrow(name).c_str());
    }
    (*found)->Remount();
}

void Machine::AddVolume(VolumeOptions options)
{
    const AttachedProcess system(SystemProcess());
    volumes_.push_back(std::make_unique<MachineVolume>(std::move(options)));
}

std::unique_ptr<MailslotReader> Machine::CreateMailslot(WideView path, ULONG mostBytes)
{
    std::unique_ptr<MailslotReader> reader;
    const NTSTATUS status = MailslotReader::Create(path, mostBytes, &reader);
    if (!NT_SUCCESS(status))
    {
        BugCheck("MAILSLOT_NOT_MADE", "%s: 0x%08x", Narrow(path).c_str(), static_cast<unsigned>(status));
    }
    return reader;
}

void Machine::SetTime(LONGLONG time)
{
    SetSystemTime(time);
}

std::vector<std::string> Machine::DebugPrints() const
{
    return hosted::DebugPrints();
}

void Machine::ClearDebugPrints()
{
    hosted::ClearDebugPrints();
}

void Machine::Shutdown()
{
    if (std::exchange(down_, true))
    {
        return;
    }
    // A plan of failures is about the run, not about its end.
    ResetFailures();
    for (const auto& program : std::views::reverse(TakePrograms()))
    {
        ExitProgram(*program);
        ReleaseProgram(*program);
    }
    FlushAll();
    if (!NT_SUCCESS(UnloadDriver()))
    {
        UnloadWithoutFilter();
    }
    if (driver_ != nullptr)
    {
        // Its load failed.
        UnlinkDriver();
    }
    const AttachedProcess system(SystemProcess());
    while (!volumes_.empty())
    {
        volumes_.pop_back();
    }
}

std::string Machine::Leaks() const
{
    return DescribeLeaks(atBoot_);
}
}
