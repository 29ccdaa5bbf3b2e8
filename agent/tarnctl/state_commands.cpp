#include "agent/tarnctl/commands.h"
#include "agent/tarnctl/key.h"

namespace tarnctl
{
namespace
{
void AddKeyCommand(CLI::App& program, Session& session)
{
    struct Given
    {
        std::string File;
        std::string Hexadecimal;
    };
    const auto given = std::make_shared<Given>();
    CLI::App* group = AddGroup(
        program, "key", "The key that files are enciphered with", {"key set --from-file C:\\Keys\\sandbox.key"});
    CLI::App* set = AddCommand(*group, "set",
        "Gives the driver its key, once per load: a driver that has one keeps it and accepts "
        "the request all the same",
        {"key set --from-file C:\\Keys\\sandbox.key"});
    CLI::Option_group* source = set->add_option_group("source");
    source
        ->add_option("--from-file", given->File,
            "A file of 17, 25 or 33 bytes (the key, then the mask byte), or of their hexadecimal digits")
        ->type_name("FILE");
    CLI::Option* hexadecimal = source
                                   ->add_option("--hex", given->Hexadecimal,
                                       "The same bytes in hexadecimal digits; other programs can see a command line")
                                   ->type_name("DIGITS");
    source->require_option(1);
    AddJsonFlag(*set, session);
    set->callback(
        [&session, given, hexadecimal]
        {
            const bool onCommandLine = hexadecimal->count() != 0;
            session.Action = [&session, given, onCommandLine]
            {
                if (onCommandLine)
                {
                    session.Warn(
                        "warning: a key on the command line can be seen by other programs and may be kept in a "
                        "history; --from-file keeps it out of sight");
                }
                const Key key =
                    onCommandLine ? KeyFromHexadecimal(given->Hexadecimal) : KeyFromFile(given->File, KeyForm::Either);
                session.Driver().SetKey(key);
                session.Answer(
                    "accepted; a key that was there before stays in force", JsonObject().Truth("accepted", true));
            };
        });
}

void AddEncryptionCommand(CLI::App& program, Session& session)
{
    const auto state = std::make_shared<std::string>();
    CLI::App* encryption = AddCommand(program, "encryption",
        "Whether files that sandboxed programs open from now on are enciphered", {"encryption off", "encryption on"});
    encryption->add_option("STATE", *state, "on or off")
        ->required()
        ->type_name("on|off")
        ->check(CLI::IsMember(std::vector<std::string>{"on", "off"}));
    AddJsonFlag(*encryption, session);
    encryption->callback(
        [&session, state]
        {
            session.Action = [&session, state]
            {
                const bool on = *state == "on";
                session.Driver().SetEncryption(on);
                session.Answer("encryption is " + *state, JsonObject().Truth("encryption", on));
            };
        });
}
}

void AddStateCommands(CLI::App& program, Session& session)
{
    AddKeyCommand(program, session);
    AddEncryptionCommand(program, session);

    CLI::App* start = AddCommand(
        program, "start", "Tells the driver that the agent is ready; the filter works from load to unload", {"start"});
    AddJsonFlag(*start, session);
    start->callback(
        [&session]
        {
            session.Action = [&session]
            {
                session.Driver().Start();
                session.Answer("started", JsonObject().Truth("started", true));
            };
        });

    CLI::App* stop = AddCommand(program, "stop",
        "Removes all process settings and switches encryption on; key, log and protections "
        "stay",
        {"stop"});
    AddJsonFlag(*stop, session);
    stop->callback(
        [&session]
        {
            session.Action = [&session]
            {
                session.Driver().Stop();
                session.Answer("stopped", JsonObject().Truth("started", false));
            };
        });
}
}
