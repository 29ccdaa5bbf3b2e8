#include "hosted/ldr/loaded_image.h"
#include "tests/conformance/platform/test/environment.h"
#include "tests/conformance/platform/test/platforms.h"
#include "tests/support/machine.h"

#include <algorithm>
#include <cstdio>
#include <stdexcept>

extern "C" NTSTATUS NTAPI PlatformQuestions(PDRIVER_OBJECT driver, PUNICODE_STRING path);

namespace platform
{
namespace
{
using namespace hosted;

constexpr LONGLONG UnitsPerHour = 36000000000LL;

WideString PathOf(std::string_view path)
{
    WideString wide = L"C:\\" + Widen(path);
    std::ranges::replace(wide, L'/', L'\\');
    return wide;
}

void Prepare(Machine& machine)
{
    std::string error;
    if (!machine.Registry().ImportReg(Keys, &error))
    {
        throw std::runtime_error("the keys were not imported: " + error);
    }
    for (const EnvironmentFile& file : Files())
    {
        if (!NT_SUCCESS(machine.PutOnDisk(PathOf(file.Path), file.Contents)))
        {
            throw std::runtime_error("not put on the disk: " + std::string(file.Path));
        }
    }
    machine.StartProcess(L"C:\\Windows\\System32\\services.exe");
}

AnswerList Ask(DRIVER_INITIALIZE* entry)
{
    SystemModel model = Windows7();
    model.TimeZoneBias = -9 * UnitsPerHour;
    Machine machine({.System = model});
    Prepare(machine);
    const NTSTATUS status = machine.LoadDriver(entry);
    machine.FlushAll();
    AnswerList answers = ParseAnswers(machine.Disk(PathOf(AnswerFile)));
    if (status != STATUS_CANCELLED)
    {
        char text[40];
        std::snprintf(text, sizeof(text), "the questions ended with %08x", static_cast<unsigned>(status));
        throw std::runtime_error(text);
    }
    AddPrints(machine.DebugPrints(), &answers);
    AddWrittenFile(machine.Disk(PathOf(WrittenFile)), &answers);
    return answers;
}
}

AnswerList AskHosted()
{
    return Ask(PlatformQuestions);
}

AnswerList AskHostedByImage()
{
    const LoadedImage image(TARNVEIL_QUESTIONS);
    return Ask(image.Entry());
}
}
