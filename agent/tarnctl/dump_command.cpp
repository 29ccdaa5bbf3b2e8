#include "agent/tarnctl/commands.h"
#include "agent/tarnctl/dump_line.h"
#include "agent/tarnctl/text.h"

namespace tarnctl
{
namespace
{
void Dump(Session& session)
{
    Transport& way = session.Way();
    const std::unique_ptr<Mailslot> mailslot = way.CreateDebugMailslot();
    // The lines are written while the request is carried out, so all are there when it has answered.
    session.Driver().OutputCurrentParameters();
    JsonArray lines;
    bool none = true;
    while (const std::optional<std::u16string> message = mailslot->Read())
    {
        none = false;
        const std::string line = LineOf(*message);
        if (session.Json)
        {
            lines.Add(DumpLineJson(line));
        }
        else
        {
            session.Line(Printable(line));
        }
    }
    if (session.Json)
    {
        session.Line(JsonObject().Raw("lines", lines.Line()).Line());
    }
    if (none)
    {
        session.Warn("the driver wrote no line; it writes them only when the registry value DebugLogLevel is there");
    }
}
}

void AddDumpCommand(CLI::App& program, Session& session)
{
    CLI::App* dump = AddCommand(program, "dump",
        "The driver's whole configuration, without the key, as it writes it to its debug "
        "mailslot",
        {"dump", "dump --json"});
    AddJsonFlag(*dump, session);
    dump->callback([&session] { session.Action = [&session] { Dump(session); }; });
}
}
