#include "demo/stage.h"

#include "hosted/machine/native_image.h"
#include "demo/report.h"

#include <cstdio>

namespace demo
{
namespace
{
constexpr ULONG AllLevels = 0x7f;
// A byte of 0x41 in front of the lowest: list items and headers.
constexpr ULONG DebugLogLevel = 0x00004100;

hosted::MachineOptions Options(const std::filesystem::path& disk)
{
    hosted::MachineOptions options;
    options.Volumes[0].Directory = disk.string();
    return options;
}
}

Stage::Stage(const Scenery& scenery, const std::string& registry, const Key& key) : machine_(Options(scenery.Disk))
{
    if (!scenery.Image.empty())
    {
        image_.emplace(scenery.Image);
    }
    Configure(registry);
    Load();
    agent_.emplace(machine_.StartProcess(L"C:\\Agent\\agent.exe"));
    event_.emplace(agent_->CreateEvent());
    ExpectStatus(agent_->StartLogging(*event_, AllLevels), STATUS_SUCCESS, "starting the log");
    GiveKey(key);
    StartPrograms();
    ReportLog();
}

void Stage::Configure(const std::string& registry)
{
    if (registry.empty())
    {
        machine_.Registry().SetString(
            hosted::Machine::ServiceKey, L"SandboxPath", L"\\Device\\HarddiskVolume1\\Sandbox");
        machine_.Registry().SetDword(hosted::Machine::ProductKey, L"DebugLogLevel", DebugLogLevel);
    }
    else
    {
        std::string error;
        Expect(machine_.Registry().ImportReg(registry, &error), "taking over the registry: " + error);
    }
    ExpectStatus(machine_.MakeFolder(L"C:\\Sandbox"), STATUS_SUCCESS, "making the sandbox folder");
}

void Stage::Load()
{
    DRIVER_INITIALIZE* const entry = image_ ? image_->Entry() : hosted::Image::Native;
    ExpectStatus(machine_.LoadDriver(entry), STATUS_SUCCESS, "loading the driver");
    Say("loaded", std::string(image_ ? "the shipping image" : "the driver") + ", sandbox folder C:\\Sandbox");
}

void Stage::GiveKey(const Key& key) const
{
    const std::string bytes(key.Bytes.begin(), key.Bytes.end());
    ExpectStatus(agent_->SetCryptKey(bytes, key.Mask), STATUS_SUCCESS, "setting the key");
    Say("key", "set by the agent: 256 bits and a mask byte, status 0x00000000");
}

void Stage::StartPrograms()
{
    const hosted::ControlAnswer added = agent_->AddProcess(L"C:\\Apps\\Editor.exe");
    ExpectStatus(added.Status, STATUS_SUCCESS, "adding the process setting");
    ExpectStatus(agent_->StartDriver(), STATUS_SUCCESS, "the start request");
    Say("setting", "C:\\Apps\\Editor.exe is to be sandboxed, setting id " + std::to_string(added.Value));

    editor_.emplace(machine_.StartProcess(L"C:\\Apps\\Editor.exe"));
    stranger_.emplace(machine_.StartProcess(L"C:\\Apps\\Stranger.exe"));
    Expect(static_cast<bool>(agent_->IsUnderSandbox(editor_->ProcessId())), "the editor is under the sandbox");
    Expect(agent_->IsUnderSandbox(stranger_->ProcessId()) == hosted::ControlAnswer{STATUS_SUCCESS, 0},
        "the stranger is not under the sandbox");
    Say("processes", "editor " + std::to_string(editor_->ProcessId()) + " is under the sandbox, stranger " +
                         std::to_string(stranger_->ProcessId()) + " is not");
}

void Stage::ReportLog() const
{
    const std::vector<hosted::LogRecord> records = agent_->DrainLog();
    Expect(!records.empty(), "the driver reported what it did");
    for (const hosted::LogRecord& record : records)
    {
        char level[8];
        std::snprintf(level, sizeof(level), "0x%02X", static_cast<unsigned>(record.Level));
        Say("log", std::string(level) + " " + record.ProcessName + " (" + std::to_string(record.ProcessId) + ") " +
                       record.Message);
    }
}

std::string Stage::Leave()
{
    ExpectStatus(agent_->StopLogging(), STATUS_SUCCESS, "stopping the log");
    ExpectStatus(agent_->StopDriver(), STATUS_SUCCESS, "the stop request");
    agent_->Exit();
    editor_->Exit();
    stranger_->Exit();
    event_.reset();
    ExpectStatus(machine_.UnloadDriver(), STATUS_SUCCESS, "unloading the driver");
    std::string registry = machine_.Registry().ExportReg(L"\\Registry\\Machine");
    machine_.Shutdown();
    const std::string leaks = machine_.Leaks();
    Expect(leaks.empty(), "nothing is left over: " + leaks);
    Say("unloaded", "nothing left over: no pool, context, reference, handle or MDL");
    return registry;
}
}
