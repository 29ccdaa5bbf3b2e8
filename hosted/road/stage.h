// A booted machine with the driver loaded and the programs that the road needs.
#pragma once

#include "hosted/ldr/loaded_image.h"
#include "hosted/machine/machine.h"
#include "hosted/road/expected_disk.h"

#include <filesystem>
#include <optional>

namespace road
{
struct Scenery
{
    std::filesystem::path Disk;  // the folder that backs drive C:
    std::filesystem::path Image; // the driver image to run; empty: the native driver
};

class Stage
{
public:
    // Boots with the registry of an earlier stage, or with a new one when that is empty. The agent gives the driver the
    // key and the setting for the editor.
    Stage(const Scenery& scenery, const std::string& registry, const Key& key);

    host::Machine& Computer() { return machine_; }
    const host::Program& Agent() const { return *agent_; }
    // Under the sandbox.
    const host::Program& Editor() const { return *editor_; }
    // Outside it.
    const host::Program& Stranger() const { return *stranger_; }

    // Prints the records since the last time; there must be some.
    void ReportLog() const;
    // Ends the programs, unloads the driver and shuts down; nothing may be left over. The registry as it was then.
    std::string Leave();

private:
    void Configure(const std::string& registry);
    void Load();
    void GiveKey(const Key& key) const;
    void StartPrograms();

    std::optional<host::LoadedImage> image_;
    host::Machine machine_;
    std::optional<host::Program> agent_;
    std::optional<host::Program> editor_;
    std::optional<host::Program> stranger_;
    std::optional<host::ProgramEvent> event_;
};
}
