// A booted machine with the driver loaded and the programs that the road needs.
#pragma once

#include "hosted/ldr/loaded_image.h"
#include "hosted/machine/machine.h"
#include "demo/expected_disk.h"

#include <filesystem>
#include <optional>

namespace demo
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

    hosted::Machine& Computer() { return machine_; }
    const hosted::Program& Agent() const { return *agent_; }
    // Under the sandbox.
    const hosted::Program& Editor() const { return *editor_; }
    // Outside it.
    const hosted::Program& Stranger() const { return *stranger_; }

    // Prints the records since the last time; there must be some.
    void ReportLog() const;
    // Ends the programs, unloads the driver and shuts down; nothing may be left over. The registry as it was then.
    std::string Leave();

private:
    void Configure(const std::string& registry);
    void Load();
    void GiveKey(const Key& key) const;
    void StartPrograms();

    std::optional<hosted::LoadedImage> image_;
    hosted::Machine machine_;
    std::optional<hosted::Program> agent_;
    std::optional<hosted::Program> editor_;
    std::optional<hosted::Program> stranger_;
    std::optional<hosted::ProgramEvent> event_;
};
}
