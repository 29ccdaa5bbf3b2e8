#include "tests/conformance/platform/test/environment.h"

namespace platform
{
const std::string_view Keys =
    R"(Windows Registry Editor Version 5.00

[HKEY_LOCAL_MACHINE\Software\PlatformQuestions]
@="standard"
"String"="text"
"NoString"=""
"Expand"=hex(2):25,00,41,00,25,00,00,00
"List"=hex(7):61,00,00,00,62,00,63,00,00,00,00,00
"NoList"=hex(7):00,00
"Binary"=hex:01,02,03
"NoBinary"=hex:
"None"=hex(0):01,02
"Dword"=dword:12345678
"Number64"=hex(b):08,07,06,05,04,03,02,01
"Reversed"=hex(5):01,02,03,04

[HKEY_LOCAL_MACHINE\Software\PlatformQuestions\Sub key]

[HKEY_LOCAL_MACHINE\Software\PlatformQuestions\Sub key\Below]
)";

std::span<const EnvironmentFile> Files()
{
    static constexpr EnvironmentFile files[] = {
        {AnswerFile, ""},
        {WrittenFile, ""},
        {"questions/short.txt", "contents"},
        {"questions/A file of a long name.txt", "longer contents"},
        {"questions/A folder of a long name/inner.txt", "inner contents"},
    };
    return files;
}
}
