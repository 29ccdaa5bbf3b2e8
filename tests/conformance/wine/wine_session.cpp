#include "tests/conformance/wine/wine_session.h"

#include <array>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <sys/wait.h>
#include <unistd.h>

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

std::string Shell(const std::string& command)
{
    std::unique_ptr<FILE, int (*)(FILE*)> pipe(popen(command.c_str(), "r"), pclose);
    if (pipe == nullptr)
    {
        throw std::runtime_error("no shell for " + command);
    }
    std::string output;
    std::array<char, 4096> piece;
    while (const size_t bytes = std::fread(piece.data(), 1, piece.size(), pipe.get()))
    {
        output.append(piece.data(), bytes);
    }
    const int status = pclose(pipe.release());
    if (!WIFEXITED(status) || WEXITSTATUS(status) == 124 || WEXITSTATUS(status) == 127)
    {
        throw std::runtime_error(command + " did not come to its end:\n" + output);
    }
    return output;
}

// Every process of Wine needs the page at 0x7FFE0000 and ends without a word where it is taken. The kernel puts the
// heap of Wine's loader anywhere in the gigabyte behind 0x7D005000, so one of a few thousand processes would not start;
// a heap that is not moved stays below. Where the kernel refuses that, the tests run without it.
const std::string& AtFixedAddresses()
{
    static const std::string command = std::system("setarch -R true 2> /dev/null") == 0 ? "setarch -R " : "";
    return command;
}

std::string Wine(const fs::path& prefix, const std::string& arguments)
{
    return "WINEPREFIX='" + prefix.string() + "' WINEDEBUG='" + Channels + "' WINEDLLOVERRIDES='" + NotLoaded +
           "' timeout -k 5 180 " + AtFixedAddresses() + Loader + " " + arguments + " 2>&1 < /dev/null";
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

Prefix::Prefix()
{
    std::string pattern = (fs::temp_directory_path() / "tarnveil-wine-XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr)
    {
        throw std::runtime_error("no folder for a Wine prefix");
    }
    folder_ = pattern;
}

// By way of the other, so that the folder goes whatever fails here.
Prefix::Prefix(const std::vector<fs::path>& files) : Prefix()
{
    const std::string output = Shell(Wine(folder_ / "prefix", "wineboot -i"));
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
    std::error_code ignored;
    // Debian's Wine makes a folder for the server's socket, and leaves its name in the prefix.
    std::string socket;
    if (std::ifstream(folder_ / "prefix" / "wineserver") >> socket && socket.starts_with("wine-"))
    {
        fs::remove_all(fs::path("/tmp") / socket, ignored);
    }
    fs::remove_all(folder_, ignored);
}

Prefix::Outcome Prefix::Run(const std::vector<std::string>& lines) const
{
    const fs::path batch = Disk() / "batch.bat";
    std::ofstream file(batch, std::ios::binary);
    file << "@echo off\r\n";
    for (const std::string& line : lines)
    {
        file << line << "\r\n";
    }
    file.close();

    // The programs' streams are one, and a file. What Wine itself says goes into its own error stream, which every
    // process of the system holds: at its end all of them have ended.
    const fs::path output = folder_ / "output";
    Outcome outcome;
    const std::string command =
        Wine(folder_ / "prefix", "cmd /c 'C:\\batch.bat 2>&1'") + " > '" + output.string() + "'";
    std::istringstream said(WithoutReturns(Shell(command)));
    for (std::string line; std::getline(said, line);)
    {
        if (!TakePrint(line, &outcome.Prints))
        {
            outcome.Notes += line + "\n";
        }
    }
    std::ifstream written(output, std::ios::binary);
    outcome.Output = WithoutReturns({std::istreambuf_iterator<char>(written), {}});
    return outcome;
}
}
