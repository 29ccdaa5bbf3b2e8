// A whole machine: boots it, loads the driver, starts programs, looks at what happened.
#pragma once

#include "hosted/cm/registry.h"
#include "hosted/io/device_driver.h"
#include "hosted/io/mailslot.h"
#include "hosted/machine/leaks.h"
#include "hosted/machine/machine_options.h"
#include "hosted/machine/machine_volume.h"
#include "hosted/machine/program.h"

namespace hosted
{
// One at a time. Boots in the constructor; the destructor shuts down and reports what was left behind (see
// SetLeakHandler).
class Machine
{
public:
    static constexpr WideView ServiceKey = L"\\Registry\\Machine\\System\\CurrentControlSet\\Services\\Tarnveil";
    static constexpr WideView ProductKey = L"\\Registry\\Machine\\SOFTWARE\\WOW6432Node\\Orvane Works\\Hollowbay";

    explicit Machine(MachineOptions options = {});
    ~Machine();
    Machine(const Machine&) = delete;
    Machine& operator=(const Machine&) = delete;

    // Calls the entry routine with the service key's path. A failed load is not undone, as on Windows: what the driver
    // left stays, and counts as a leak unless AbandonDriver is called.
    NTSTATUS LoadDriver(DRIVER_INITIALIZE* entry, WideView registryPath = ServiceKey);
    // The filter's unload, as by "fltmc unload". STATUS_INVALID_DEVICE_REQUEST when no driver is loaded.
    NTSTATUS UnloadDriver();
    // For a driver that loaded although it took its filter back, which Windows keeps until it is shut down: runs the
    // unload routine that it had registered. STATUS_INVALID_DEVICE_REQUEST when no driver is loaded, otherwise a
    // failure when there is a filter (UnloadDriver) or never was one. The end of the machine does it by itself.
    NTSTATUS UnloadWithoutFilter();
    // After a failed load: takes away what the system can take away by force (filter, notify routine, devices, link),
    // and lets the destructor pass over what remains.
    void AbandonDriver();
    bool DriverLoaded() const { return loaded_; }
    // Null before the first load and after an unload.
    PDRIVER_OBJECT Driver() const { return driver_; }

    // A program started by the system process; its image is installed beneath the filters when it is missing.
    Program StartProcess(WideView image);
    // Started by another program.
    Program StartProcess(WideView image, const Program& parent);
    // The system process with everything said.
    Program StartProcess(const ProcessParameters& parameters);

    // The program ends just before the next look-up of its id, as when it exits between the snapshot that names it and
    // the question about it. Until the next such plan or the end of the machine.
    void ExitAtLookup(const Program& program);

    // The bytes on the disk, past cache and filters; "" when there is no such stream.
    std::string Disk(WideView path) const;
    bool DiskHas(WideView path) const;
    // Puts a file on the disk past the filters, with its folders; the cache then holds nothing of it.
    // STATUS_SHARING_VIOLATION while somebody has it open.
    NTSTATUS PutOnDisk(WideView path, std::string_view bytes);
    // An empty folder, with those above it.
    NTSTATUS MakeFolder(WideView path);
    // Every dirty page of every volume goes to the disk, by paging writes through the filters.
    void FlushAll();
    // The volume of that drive letter ("C:") or device name; bug check when there is none.
    Volume* VolumeNamed(WideView name) const;
    void Remount(WideView name);
    void AddVolume(VolumeOptions options);

    // What a program that reads a mailslot makes: "\Device\mailslot\Name". `mostBytes` as for CreateMailslot, 0 for
    // messages of any length. Bug check when it cannot be made.
    std::unique_ptr<MailslotReader> CreateMailslot(WideView path, ULONG mostBytes = 0);

    // The clock, in UTC by units of 100 ns since 1601; it stands still until it is set. Local time is that less the
    // system model's time zone bias.
    void SetTime(LONGLONG time);

    // Empty at boot but for the driver's service key.
    hosted::Registry& Registry() const { return SystemRegistry(); }
    std::vector<std::string> DebugPrints() const;
    void ClearDebugPrints();

    // Ends programs, unloads the driver, dismounts. Once; the destructor does it otherwise.
    void Shutdown();
    // What is alive beyond what was at boot; meant for after Shutdown. "" when nothing is.
    std::string Leaks() const;

private:
    NTSTATUS UnloadBy(NTSTATUS (*unload)());
    void UnlinkDriver();

    Inventory atBoot_;
    std::vector<std::unique_ptr<MachineVolume>> volumes_;
    PDRIVER_OBJECT driver_ = nullptr;
    bool loaded_ = false;
    bool abandoned_ = false;
    bool down_ = false;
};

// Called by a machine's destructor with the list of what was left behind. The default stops the run.
void SetLeakHandler(void (*handler)(const std::string& leaks));
}
