// A whole machine: boots it, loads the driver, starts programs, looks at what happened.
#pragma once

#include "hosted/cm/registry.h"
#include "hosted/io/device_driver.h"
#include "hosted/machine/leaks.h"
#include "hosted/machine/machine_options.h"
#include "hosted/machine/machine_volume.h"
#include "hosted/machine/program.h"

namespace host
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

    // The bytes on the disk, past cache and filters; "" when there is no such stream.
    std::string Disk(WideView path) const;
    bool DiskHas(WideView path) const;
    // Puts a file on the disk past the filters, with its folders. Nobody may have it open.
    NTSTATUS PutOnDisk(WideView path, std::string_view bytes);
    // An empty folder, with those above it.
    NTSTATUS MakeFolder(WideView path);
    // Every dirty page of every volume goes to the disk, by paging writes through the filters.
    void FlushAll();
    // The volume of that drive letter ("C:") or device name; bug check when there is none.
    Volume* VolumeNamed(WideView name) const;
    void Remount(WideView name);
    void AddVolume(VolumeOptions options);

    // Empty at boot but for the driver's service key.
    host::Registry& Registry() const { return SystemRegistry(); }
    std::vector<std::string> DebugPrints() const;
    void ClearDebugPrints();

    // Ends programs, unloads the driver, dismounts. Once; the destructor does it otherwise.
    void Shutdown();
    // What is alive beyond what was at boot; meant for after Shutdown. "" when nothing is.
    std::string Leaks() const;

private:
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
