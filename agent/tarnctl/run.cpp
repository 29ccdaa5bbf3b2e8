#include "agent/tarnctl/run.h"

#include "agent/tarnctl/commands.h"
#include "agent/tarnctl/text.h"

#include <algorithm>
#include <cctype>
#include <exception>

namespace tarnctl
{
namespace
{
constexpr const char* ExitCodes = R"(Exit codes:
  0  done
  1  refused by the driver; the status is named on standard error
  2  wrong use
  3  driver not reachable
  4  trouble on this side: a file, the mailslot or the output)";

// A key may stand anywhere on a command line that was not understood, so nothing of such a line is repeated.
bool MayHoldKey(const std::vector<std::string>& arguments)
{
    return std::ranges::any_of(arguments,
        [](const std::string& argument)
        {
            return argument == "key" || argument.starts_with("--hex") ||
                   std::ranges::count_if(argument, [](unsigned char unit) { return std::isxdigit(unit) != 0; }) >= 16;
        });
}

std::string Explanation(const CLI::ParseError& error, const std::vector<std::string>& arguments)
{
    std::string text = error.what();
    if (MayHoldKey(arguments))
    {
        text = "the command line was not understood (it is not repeated here, since a key may be in it)";
    }
    return Printable(text) + "; tarnctl --help and tarnctl COMMAND --help tell more";
}

std::string Examples(std::initializer_list<std::string_view> examples)
{
    std::string text = "Examples:";
    for (const std::string_view example : examples)
    {
        text += "\n  tarnctl ";
        text += example;
    }
    return text;
}

int Finish(Session& session, const Failure& failure)
{
    session.Report(failure);
    return static_cast<int>(failure.Code());
}

// Carries out a command line that was understood.
int Perform(Session& session)
{
    try
    {
        session.Action();
        return static_cast<int>(ExitCode::Success);
    }
    catch (const Failure& failure)
    {
        return Finish(session, failure);
    }
    catch (const std::exception& exception)
    {
        return Finish(session, Failure(ExitCode::Trouble, exception.what()));
    }
}
}

CLI::App* AddCommand(CLI::App& parent, const std::string& name, const std::string& description,
    std::initializer_list<std::string_view> examples)
{
    CLI::App* command = parent.add_subcommand(name, description);
    // On Windows a path may begin with a slash.
    command->allow_windows_style_options(false);
    command->footer(Examples(examples));
    return command;
}

CLI::App* AddGroup(CLI::App& parent, const std::string& name, const std::string& description,
    std::initializer_list<std::string_view> examples)
{
    CLI::App* group = AddCommand(parent, name, description, examples);
    group->require_subcommand(1);
    return group;
}

void AddJsonFlag(CLI::App& command, Session& session)
{
    command.add_flag("--json", session.Json, "Answer in JSON");
}

CLI::Option* AddNumber(CLI::App& command, const std::string& name, std::uint64_t most,
    std::function<void(std::uint64_t)> take, const std::string& description)
{
    return command
        .add_option_function<std::string>(
            name,
            [name, most, take = std::move(take)](const std::string& text)
            {
                const std::optional<std::uint64_t> value = ParseNumber(text);
                if (!value || *value > most)
                {
                    throw CLI::ValidationError(name, "is not a number from 0 to " + std::to_string(most));
                }
                take(*value);
            },
            description)
        ->type_name("NUMBER");
}

namespace
{
// `socket`: what the option --socket sets; null: there is none.
int Run(const std::vector<std::string>& arguments, const Connect& connect, std::string* socket, std::ostream& output,
    std::ostream& error)
{
    Session session(connect, output, error);
    CLI::App program("Steers the Tarnveil driver, and recovers enciphered files without it.", "tarnctl");
    if (socket != nullptr)
    {
        program
            .add_option("--socket", *socket,
                "The control socket of the host that runs the driver, in place of TARNVEIL_SOCKET and of "
                "$XDG_RUNTIME_DIR/tarnhost/control (/tmp/tarnhost-UID/control)")
            ->type_name("PATH");
    }
    program.require_subcommand(1);
    program.allow_windows_style_options(false);
    program.footer(Examples({"key set --from-file C:\\Keys\\sandbox.key", "process add C:\\Apps\\Editor.exe",
                       "pids --json", "recover --key-file sandbox.key D:\\Sandbox\\plan.txt plan.txt"}) +
                   "\n\n" + ExitCodes);
    AddStateCommands(program, session);
    AddSettingCommands(program, session);
    AddQueryCommands(program, session);
    AddLogCommands(program, session);
    AddDumpCommand(program, session);
    AddFileCommands(program, session);
    try
    {
        program.parse(std::vector<std::string>(arguments.rbegin(), arguments.rend()));
    }
    catch (const CLI::Success& help)
    {
        program.exit(help, output, error);
        return static_cast<int>(ExitCode::Success);
    }
    catch (const CLI::ParseError& failure)
    {
        // The flag may stand behind what was not understood.
        session.Json = std::ranges::find(arguments, "--json") != arguments.end();
        return Finish(session, Failure(ExitCode::WrongUse, Explanation(failure, arguments)));
    }
    return Perform(session);
}
}

int Run(const std::vector<std::string>& arguments, const Connect& connect, std::ostream& output, std::ostream& error)
{
    return Run(arguments, connect, nullptr, output, error);
}

int RunOverSocket(
    const std::vector<std::string>& arguments, const ConnectAt& connect, std::ostream& output, std::ostream& error)
{
    std::string socket;
    return Run(arguments, [&] { return connect(socket); }, &socket, output, error);
}
}
