// The program on Windows.
#include "agent/tarnctl/run.h"
#include "agent/tarnctl/windows_transport.h"

#include <windows.h>

#include <iostream>

#include "agent/tarnctl/text.h"

extern "C" int wmain(int count, wchar_t** arguments)
{
    SetConsoleOutputCP(CP_UTF8);
    std::vector<std::string> texts;
    for (int i = 1; i < count; ++i)
    {
        texts.push_back(tarnctl::ToUtf8(reinterpret_cast<const char16_t*>(arguments[i])));
    }
    return tarnctl::Run(texts, tarnctl::ConnectToDevice, std::cout, std::cerr);
}
