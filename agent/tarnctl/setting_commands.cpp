#include "agent/tarnctl/commands.h"

#include <limits>

namespace tarnctl
{
namespace
{
constexpr std::uint64_t MostId = std::numeric_limits<std::uint32_t>::max();

struct SettingGroup
{
    SettingKind Kind;
    const char* Name;
    const char* About;
    const char* AddAbout;
    const char* ExamplePath;
};

constexpr SettingGroup Groups[] = {
    {SettingKind::Process, "process", "Programs whose processes are under the sandbox",
        "Puts the processes of a program under the sandbox, those that run too; their children are not for that reason",
        "\"C:\\Apps\\Editor.exe\""},
    {SettingKind::Parent, "parent", "Programs whose descendants are under the sandbox",
        "Puts the descendants of a program's processes under the sandbox, to any depth", "C:\\Agent\\Shell.exe"},
    {SettingKind::Exclusion, "exclude", "Programs that are never put under the sandbox",
        "Keeps processes of a program that start from now on out of the sandbox", "C:\\Windows\\splwow64.exe"},
};

void AnswerAdded(Session& session, std::uint32_t id, const std::string& path)
{
    session.Answer("id " + std::to_string(id), JsonObject().Number("id", id).Text("path", path));
}

void AnswerRemoved(Session& session, std::uint32_t id)
{
    // The driver says success for an id that nobody carries too.
    session.Answer("id " + std::to_string(id) + " is no setting any more", JsonObject().Number("removed", id));
}

struct Removal
{
    const char* About;
    std::string Example;
    void (*Request)(DriverClient& driver, std::uint32_t id);
};

void AddRemoveCommand(CLI::App& group, Session& session, const Removal& removal)
{
    const auto id = std::make_shared<std::uint32_t>();
    CLI::App* remove = AddCommand(group, "remove", removal.About, {removal.Example});
    AddNumber(
        *remove, "ID", MostId, [id](std::uint64_t value) { *id = static_cast<std::uint32_t>(value); },
        "As the add answered")
        ->required();
    AddJsonFlag(*remove, session);
    remove->callback(
        [&session, id, request = removal.Request]
        {
            session.Action = [&session, id, request]
            {
                request(session.Driver(), *id);
                AnswerRemoved(session, *id);
            };
        });
}

void AddSettingGroup(CLI::App& program, Session& session, const SettingGroup& setting)
{
    const std::string name = setting.Name;
    CLI::App* group =
        AddGroup(program, name, setting.About, {name + " add " + setting.ExamplePath, name + " remove 0"});

    const auto path = std::make_shared<std::string>();
    CLI::App* add = AddCommand(*group, "add", setting.AddAbout,
        {name + " add " + setting.ExamplePath, name + " add --json " + setting.ExamplePath});
    add->add_option("PATH", *path, "The program's full path with its drive letter; compared whole, without wildcards")
        ->required()
        ->type_name("");
    AddJsonFlag(*add, session);
    add->callback(
        [&session, path, kind = setting.Kind]
        {
            session.Action = [&session, path, kind]
            { AnswerAdded(session, session.Driver().AddSetting(kind, *path), *path); };
        });

    AddRemoveCommand(*group, session,
        {"Removes a setting by its id, with the processes that are monitored because of it", name + " remove 0",
            [](DriverClient& driver, std::uint32_t id) { driver.RemoveSetting(id); }});
}

void AddProtectGroup(CLI::App& program, Session& session)
{
    struct Pair
    {
        std::uint32_t ProcessId = 0;
        std::string Path;
    };
    CLI::App* group = AddGroup(program, "protect", "Files outside the sandbox that only named processes may open",
        {"protect add 4312 C:\\Data\\ledger.db", "protect remove 3"});

    const auto pair = std::make_shared<Pair>();
    CLI::App* add =
        AddCommand(*group, "add", "Protects a file and lets a process open it; further processes by further calls",
            {"protect add 4312 C:\\Data\\ledger.db", "protect add 4312 \"C:\\Data\\*.db\""});
    AddNumber(
        *add, "PID", MostId, [pair](std::uint64_t value) { pair->ProcessId = static_cast<std::uint32_t>(value); },
        "The process that may open it")
        ->required();
    add->add_option("PATH", pair->Path, "The file's path with its drive letter; * and ? stand for any characters")
        ->required()
        ->type_name("");
    AddJsonFlag(*add, session);
    add->callback(
        [&session, pair]
        {
            session.Action = [&session, pair]
            { AnswerAdded(session, session.Driver().AddProtection(pair->ProcessId, pair->Path), pair->Path); };
        });

    AddRemoveCommand(*group, session,
        {"Takes back one process by the pair's id; the file stays protected until the driver is unloaded",
            "protect remove 3", [](DriverClient& driver, std::uint32_t id) { driver.RemoveProtection(id); }});
}
}

void AddSettingCommands(CLI::App& program, Session& session)
{
    for (const SettingGroup& setting : Groups)
    {
        AddSettingGroup(program, session, setting);
    }
    AddProtectGroup(program, session);
}
}
