#include "agent/tarnctl/commands.h"
#include "agent/tarnctl/text.h"

#include <limits>

namespace tarnctl
{
namespace
{
std::string Array(const std::vector<std::uint32_t>& ids)
{
    JsonArray array;
    for (const std::uint32_t id : ids)
    {
        array.Add(std::to_string(id));
    }
    return array.Line();
}

std::string VolumesJson(const std::vector<VolumeDescription>& volumes)
{
    JsonArray array;
    for (const VolumeDescription& volume : volumes)
    {
        array.Add(JsonObject()
                .Text("drive", volume.Drive)
                .Text("device", volume.Device)
                .Text("folder", volume.Folder)
                .Text("mountPoint", volume.MountPoint)
                .Line());
    }
    return array.Line();
}

std::string LiveText(const LiveDescription& host)
{
    std::string text = "system: " + Printable(host.System) + "\ndriver image: " + Printable(host.Driver) + "\n";
    for (const VolumeDescription& volume : host.Volumes)
    {
        text += "volume " + Printable(volume.Drive) + " " + Printable(volume.Device) + " is " +
                Printable(volume.Folder) +
                (volume.MountPoint.empty() ? "" : ", mounted at " + Printable(volume.MountPoint)) + "\n";
    }
    return text;
}

void AnswerStatus(Session& session)
{
    const bool any = session.Driver().IsAnyUnderSandbox();
    const std::vector<std::uint32_t> ids = session.Driver().ProcessesUnderSandbox();
    std::string text = "driver: reachable\n";
    JsonObject json;
    json.Truth("reachable", true);
    if (const std::optional<LiveDescription> host = session.Way().Describe())
    {
        text += LiveText(*host);
        json.Text("system", host->System).Text("driver", host->Driver).Raw("volumes", VolumesJson(host->Volumes));
    }
    session.Answer(text + "processes under the sandbox: " + std::to_string(ids.size()),
        json.Truth("anyUnderSandbox", any).Number("count", ids.size()).Raw("pids", Array(ids)));
}
}

void AddQueryCommands(CLI::App& program, Session& session)
{
    const auto processId = std::make_shared<std::uint32_t>();
    CLI::App* under = AddCommand(program, "under-sandbox",
        "Whether a process is under the sandbox or a parent: yes or no, exit code 0 for both",
        {"under-sandbox 4312", "under-sandbox 4312 --json"});
    AddNumber(
        *under, "PID", std::numeric_limits<std::uint32_t>::max(),
        [processId](std::uint64_t value) { *processId = static_cast<std::uint32_t>(value); }, "The process")
        ->required();
    AddJsonFlag(*under, session);
    under->callback(
        [&session, processId]
        {
            session.Action = [&session, processId]
            {
                const bool answer = session.Driver().IsUnderSandbox(*processId);
                session.Answer(
                    answer ? "yes" : "no", JsonObject().Number("pid", *processId).Truth("underSandbox", answer));
            };
        });

    CLI::App* pids = AddCommand(
        program, "pids", "The ids of the processes under the sandbox, one per line", {"pids", "pids --json"});
    AddJsonFlag(*pids, session);
    pids->callback(
        [&session]
        {
            session.Action = [&session]
            {
                const std::vector<std::uint32_t> ids = session.Driver().ProcessesUnderSandbox();
                if (session.Json)
                {
                    session.Line(JsonObject().Raw("pids", Array(ids)).Line());
                    return;
                }
                for (const std::uint32_t id : ids)
                {
                    session.Line(std::to_string(id));
                }
            };
        });

    CLI::App* status = AddCommand(program, "status",
        "Whether the driver answers, what it runs in unless that is this Windows, and how "
        "many processes are under the sandbox; dump tells its whole configuration",
        {"status", "status --json"});
    AddJsonFlag(*status, session);
    status->callback([&session] { session.Action = [&session] { AnswerStatus(session); }; });
}
}
