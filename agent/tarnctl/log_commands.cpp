#include "agent/tarnctl/commands.h"
#include "agent/tarnctl/text.h"

#include <tarnveil/control.h>

#include <algorithm>
#include <limits>

namespace tarnctl
{
namespace
{
struct Level
{
    const char* Option; // on the command line
    const char* Name;   // in the log
    std::uint32_t Bit;
};

constexpr Level Levels[] = {
    {"allowed", "Info", TARNVEIL_LEVEL_ALLOWED_OPEN},
    {"key", "Warn", TARNVEIL_LEVEL_REFUSED_KEY},
    {"denied", "Warn", TARNVEIL_LEVEL_DENIED_OPEN},
    {"trace", "Trace", TARNVEIL_LEVEL_TRACE},
};

struct FollowOptions
{
    std::vector<std::string> Levels;
    std::optional<std::uint64_t> Count;
    std::optional<std::uint64_t> IdleSeconds;
};

std::uint32_t Mask(const std::vector<std::string>& names)
{
    std::uint32_t mask = 0;
    for (const Level& level : Levels)
    {
        const bool wanted = names.empty() || std::ranges::find(names, level.Option) != names.end();
        mask |= wanted ? level.Bit : 0;
    }
    return mask;
}

std::string LevelName(std::uint32_t bits)
{
    for (const Level& level : Levels)
    {
        if ((bits & level.Bit) != 0)
        {
            return level.Name;
        }
    }
    return "?";
}

void Print(Session& session, const LogRecord& record)
{
    const std::string level = LevelName(record.Level);
    session.Answer(level + std::string(6 - level.size(), ' ') + Printable(record.ProcessName) + " (" +
                       std::to_string(record.ProcessId) + "): " + Printable(record.Message),
        JsonObject()
            .Number("level", record.Level)
            .Text("levelName", level)
            .Number("pid", record.ProcessId)
            .Text("process", record.ProcessName)
            .Text("message", record.Message));
}

// Prints what waits, at most so many; what is left to print afterwards.
std::uint64_t Drain(Session& session, std::uint64_t left)
{
    while (left > 0)
    {
        const std::vector<LogRecord> records = session.Driver().TakeLogRecords();
        if (records.empty())
        {
            break;
        }
        for (const LogRecord& record : records)
        {
            if (left > 0)
            {
                Print(session, record);
                --left;
            }
        }
    }
    return left;
}

void FollowRecords(Session& session, const FollowOptions& options)
{
    std::optional<std::chrono::milliseconds> longest;
    if (options.IdleSeconds)
    {
        longest = std::chrono::seconds(*options.IdleSeconds);
    }
    std::uint64_t left = options.Count.value_or(std::numeric_limits<std::uint64_t>::max());
    Wake wake = Wake::Signalled;
    while (left > 0 && wake == Wake::Signalled)
    {
        // Records come before their signal, so what is there after a wait that ended is printed too.
        left = Drain(session, left);
        wake = left > 0 ? session.Way().WaitForLogEvent(longest) : wake;
    }
    Drain(session, left);
}

void Follow(Session& session, const FollowOptions& options)
{
    session.Driver().StartLogging(Mask(options.Levels));
    try
    {
        FollowRecords(session, options);
    }
    catch (...)
    {
        // The reason to end is worth more than the driver's answer to this.
        session.Way().Send(IOCTL_STOP_LOGGING, {}, {});
        throw;
    }
    session.Driver().StopLogging();
}

std::vector<std::string> LevelOptions()
{
    std::vector<std::string> options;
    for (const Level& level : Levels)
    {
        options.emplace_back(level.Option);
    }
    return options;
}
}

void AddLogCommands(CLI::App& program, Session& session)
{
    CLI::App* group = AddGroup(program, "log", "The driver's log records, which one agent at a time receives",
        {"log follow --levels denied", "log stop"});

    const auto options = std::make_shared<FollowOptions>();
    CLI::App* follow =
        AddCommand(*group, "follow", "Prints log records as they come, until interrupted; then ends the logging",
            {"log follow", "log follow --levels denied,key", "log follow --json --count 100"});
    follow->add_option("--levels", options->Levels, "allowed, key, denied, trace, with commas between; all by default")
        ->delimiter(',')
        ->type_name("LEVELS")
        ->check(CLI::IsMember(LevelOptions()));
    AddNumber(
        *follow, "--count", std::numeric_limits<std::uint64_t>::max(),
        [options](std::uint64_t value) { options->Count = value; }, "End after so many records");
    AddNumber(
        *follow, "--idle", 4000000, [options](std::uint64_t value) { options->IdleSeconds = value; },
        "End when no record came for so many seconds");
    AddJsonFlag(*follow, session);
    follow->callback([&session, options] { session.Action = [&session, options] { Follow(session, *options); }; });

    CLI::App* stop = AddCommand(*group, "stop",
        "Ends the logging and drops the records that wait, as after a follow that was killed", {"log stop"});
    AddJsonFlag(*stop, session);
    stop->callback(
        [&session]
        {
            session.Action = [&session]
            {
                session.Driver().StopLogging();
                session.Answer("logging has ended", JsonObject().Truth("logging", false));
            };
        });
}
}
