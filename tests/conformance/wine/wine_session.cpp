#include "tests/conformance/wine/wine_session.h"

#include "tests/support/shell.h"
#include "tests/support/text.h"

#include <fstream>
#include <stdexcept>

namespace wine
{
namespace
{
namespace fs = std::filesystem;

// The loader itself; the package that puts it into the path would bring more than is needed.
constexpr char Loader[] = "/usr/lib/wine/wine64";
// What the driver prints, and nothing else of Wine's own.
constexpr char Channels[] = "-all,warn+debugstr";
constexpr char PrintMark[] = "vDbgPrintExWithPrefix ";
// What is not loaded: what takes long and no test needs, and the drivers of Wine's own buses. In one of a few hundred
// starts their process faults, in a device's creation for a null driver object.
constexpr char NotLoaded[] = "mscoree,mshtml,winemenubuilder.exe,winebus.sys,wineusb.sys=";

// Every process of Wine needs the page at 0x7FFE0000 and ends without a word where it is taken. The kernel puts the
// heap of Wine's loader anywhere in the gigabyte behind 0x7D005000, so one of a few thousand processes would not start;
// a heap that is not moved stays below. Where the kernel refuses that, the tests run without it.
const std::string& AtFixedAddresses()
{
    static const std::string command = RunShell("setarch -R true 2>&1").Code == 0 ? "setarch -R " : "";
    return command;
}

// What Wine itself says while it runs a program. The program's standard output goes into a file.
std::string Wine(const TemporaryFolder& folder, const std::string& arguments)
{
    const std::string command = "WINEPREFIX=" + Quoted(folder.Path("prefix")) + " WINEDEBUG='" + Channels +
                                "' WINEDLLOVERRIDES='" + NotLoaded + "' timeout -k 5 180 " + AtFixedAddresses() +
                                Loader + " " + arguments + " 2>&1 > " + Quoted(folder.Path("output")) + " < /dev/null";
    const ShellOutcome outcome = RunShell(command);
    // Out of time, not there, killed.
    if (outcome.Code == 124 || outcome.Code == 127 || outcome.Code == 137)
    {
        throw std::runtime_error(command + " did not come to its end:\n" + folder.Get("output") + outcome.Output);
    }
    return outcome.Output;
}

std::string WithoutReturns(std::string text)
{
    std::erase(text, '\r');
    return text;
}

// A debugger text stands behind "PROCESS:CHANNEL:vDbgPrintExWithPrefix COMPONENT:LEVEL: ".
bool TakePrint(const std::string& line, std::vector<std::string>* prints)
{
    const size_t mark = line.find(PrintMark);
    if (mark == std::string::npos)
    {
        return false;
    }
    const size_t text = line.find(": ", mark);
    prints->push_back(text == std::string::npos ? std::string() : line.substr(text + 2));
    return true;
}
}

Prefix::Prefix(const std::vector<fs::path>& files)
{
    const std::string output = Wine(folder_, "wineboot -i");
    if (!fs::exists(Disk() / "windows" / "system32" / "kernel32.dll"))
    {
        throw std::runtime_error("Wine made no prefix:\n" + output);
    }
    for (const fs::path& file : files)
    {
        fs::copy_file(file, Disk() / file.filename());
    }
}

Prefix::~Prefix()
{
    // Debian's Wine makes a folder for the server's socket, and leaves its name in the prefix.
    std::string socket;
    if (std::ifstream(folder_.Path("prefix/wineserver")) >> socket && socket.starts_with("wine-"))
    {
        std::error_code ignored;
        fs::remove_all(fs::path("/tmp") / socket, ignored);
    }
}

Prefix::Outcome Prefix::Run(const std::vector<std::string>& lines) const
{
    std::string batch = "@echo off\r\n";
    for (const std::string& line : lines)
    {
        batch += line + "\r\n";
    }
    folder_.Put("prefix/drive_c/batch.bat", batch);

    // The programs' streams are one. What Wine itself says goes into its own error stream, which every process of the
    // system holds: at its end all of them have ended.
    Outcome outcome;
    for (const std::string& line : Lines(WithoutReturns(Wine(folder_, "cmd /c 'C:\\batch.bat 2>&1'"))))
    {
        if (!TakePrint(line, &outcome.Prints))
        {
            outcome.Notes += line + "\n";
        }
    }
    outcome.Output = WithoutReturns(folder_.Get("output"));
    return outcome;
}
}
