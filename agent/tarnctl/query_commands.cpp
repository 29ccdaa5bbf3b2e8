#include "agent/tarnctl/commands.h"

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

void AnswerStatus(Session& session)
{
    const bool any = session.Driver().IsAnyUnderSandbox();
    const std::vector<std::uint32_t> ids = session.Driver().ProcessesUnderSandbox();
    session.Answer("driver: reachable\nprocesses under the sandbox: " + std::to_string(ids.size()),
                   JsonObject()
                       .Truth("reachable", true)
                       .Truth("anyUnderSandbox", any)
                       .Number("count", ids.size())
                       .Raw("pids", Array(ids)));
}
}

void AddQueryCommands(CLI::App& program, Session& session)
{
    const auto processId = std::make_shared<std::uint32_t>();
    CLI::App* under = AddCommand(program, "under-sandbox",
                                 "Whether a process is under the sandbox or a parent: yes or no, exit code 0 for both",
                                 {"under-sandbox 4312", "under-sandbox 4312 --json"});
    AddNumber(*under, "PID", std::numeric_limits<std::uint32_t>::max(),
              [processId](std::uint64_t value) { *processId = static_cast<std::uint32_t>(value); }, "The process")
        ->required();
    AddJsonFlag(*under, session);
    under->callback([&session, processId] {
        session.Action = [&session, processId] {
            const bool answer = session.Driver().IsUnderSandbox(*processId);
            session.Answer(answer ? "yes" : "no",
                           JsonObject().Number("pid", *processId).Truth("underSandbox", answer));
        };
    });

    CLI::App* pids = AddCommand(program, "pids", "The ids of the processes under the sandbox, one per line",
                                {"pids", "pids --json"});
    AddJsonFlag(*pids, session);
    pids->callback([&session] {
        session.Action = [&session] {
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
                                  "Whether the driver answers and how many processes are under the sandbox; dump tells "
                                  "its whole configuration",
                                  {"status", "status --json"});
    AddJsonFlag(*status, session);
    status->callback([&session] { session.Action = [&session] { AnswerStatus(session); }; });
}
}
