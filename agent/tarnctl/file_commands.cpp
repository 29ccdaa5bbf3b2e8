#include "agent/tarnctl/commands.h"
#include "agent/tarnctl/recover.h"

#include <limits>

namespace tarnctl
{
namespace
{
void ConvertFile(Session& session, const Conversion& conversion)
{
    const ConversionResult result = Convert(conversion);
    if (result.ZeroFrom)
    {
        session.Warn(
            "warning: the input ends early; the output is zeros from byte " + std::to_string(*result.ZeroFrom) + " on");
    }
    JsonObject json;
    json.Text("output", conversion.Output).Number("bytes", result.Bytes);
    if (result.ZeroFrom)
    {
        json.Number("zeroFrom", *result.ZeroFrom);
    }
    session.Answer(conversion.Output + ": " + std::to_string(result.Bytes) + " bytes", json);
}

void AddFileCommand(CLI::App& program, Session& session, Direction way, const std::string& name,
    const std::string& about, std::initializer_list<std::string_view> examples)
{
    const auto conversion = std::make_shared<Conversion>();
    conversion->Way = way;
    CLI::App* command = AddCommand(program, name, about, examples);
    command
        ->add_option("--key-file", conversion->KeyFile,
            "17, 25 or 33 bytes: the key, then the mask byte; or their hexadecimal digits")
        ->required()
        ->type_name("FILE");
    command->add_flag_callback(
        "--hex", [conversion] { conversion->Form = KeyForm::Hexadecimal; },
        "Take the key file for hexadecimal digits only");
    AddNumber(
        *command, "--mask", 255,
        [conversion](std::uint64_t value) { conversion->Mask = static_cast<std::uint8_t>(value); },
        "The mask byte, in place of the key file's; 0 for a key of 24 bytes that the driver took from the "
        "registry");
    AddNumber(
        *command, "--size", std::numeric_limits<std::int64_t>::max(), [conversion](std::uint64_t value)
        { conversion->Size = value; }, "The file's true size in bytes, when it is not the length of IN");
    command->add_option("IN", conversion->Input, "The file to read")->required()->type_name("");
    command
        ->add_option(
            "OUT", conversion->Output, "The file to write; it appears when it is whole, in place of an old one")
        ->required()
        ->type_name("");
    AddJsonFlag(*command, session);
    command->callback(
        [&session, conversion] { session.Action = [&session, conversion] { ConvertFile(session, *conversion); }; });
}
}

void AddFileCommands(CLI::App& program, Session& session)
{
    AddFileCommand(program, session, Direction::Recover, "recover", "Deciphers an enciphered file, without any driver",
        {"recover --key-file sandbox.key D:\\Sandbox\\plan.txt plan.txt",
            "recover --key-file sandbox.key --size 100 plan.img plan.txt"});
    AddFileCommand(program, session, Direction::Conceal, "conceal",
        "Enciphers a file as the driver does, without any driver",
        {"conceal --key-file sandbox.key plan.txt D:\\Sandbox\\plan.txt"});
}
}
