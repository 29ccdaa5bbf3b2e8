#include "tests/conformance/platform/test/environment.h"
#include "tests/conformance/platform/test/platforms.h"
#include "tests/conformance/wine/wine_session.h"

#include <cstdlib>
#include <fstream>
#include <sstream>

namespace platform
{
namespace
{
namespace fs = std::filesystem;

void WriteFile(const fs::path& path, std::string_view contents)
{
    fs::create_directories(path.parent_path());
    std::ofstream(path, std::ios::binary) << contents;
}

// ASCII text, so widened. Of a file in any other form the bytes of strings would be converted.
std::string AsUtf16(std::string_view text)
{
    std::string bytes = "\xFF\xFE";
    for (const char character : text)
    {
        bytes += character;
        bytes += '\0';
    }
    return bytes;
}

std::string ReadFile(const fs::path& path)
{
    std::ostringstream contents;
    contents << std::ifstream(path, std::ios::binary).rdbuf();
    return contents.str();
}
}

AnswerList AskWine()
{
    // Wine takes its time zone from here; this one has no summer time.
    setenv("TZ", "Asia/Tokyo", 1);
    const wine::Prefix prefix({TARNVEIL_QUESTIONS});
    for (const EnvironmentFile& file : Files())
    {
        WriteFile(prefix.Disk() / file.Path, file.Contents);
    }
    WriteFile(prefix.Disk() / "keys.reg", AsUtf16(Keys));
    // The version counts for the programs of the next system.
    prefix.Run({"reg add HKCU\\Software\\Wine /v Version /d win7 /f"});
    const wine::Prefix::Outcome outcome = prefix.Run({"reg import C:\\keys.reg",
        "sc create PlatformQuestions binPath= C:\\PlatformQuestions.sys type= kernel start= demand",
        "sc start PlatformQuestions"});
    try
    {
        AnswerList answers = ParseAnswers(ReadFile(prefix.Disk() / AnswerFile));
        AddPrints(outcome.Prints, &answers);
        AddWrittenFile(ReadFile(prefix.Disk() / WrittenFile), &answers);
        return answers;
    }
    catch (const std::runtime_error& reason)
    {
        throw std::runtime_error(reason.what() + ("\n" + outcome.Output + outcome.Notes));
    }
}
}
