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

std::string Wine(const fs::path& prefix, const std::string& arguments)
{
    return "WINEPREFIX='" + prefix.string() + "' WINEDEBUG='" + Channels +
           "' WINEDLLOVERRIDES='mscoree,mshtml,winemenubuilder.exe=' timeout -k 5 180 " + Loader + " " + arguments +
           " 2>&1 < /dev/null";
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
    if (!fs::is_directory(Disk()))
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

    Outcome outcome;
    std::istringstream output(Shell(Wine(folder_ / "prefix", "cmd /c 'C:\\batch.bat'")));
    for (std::string line; std::getline(output, line);)
    {
        if (!line.empty() && line.back() == '\r')
        {
            line.pop_back();
        }
        if (!TakePrint(line, &outcome.Prints))
        {
            outcome.Output += line + "\n";
        }
    }
    return outcome;
}
}
