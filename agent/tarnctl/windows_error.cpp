#include "agent/tarnctl/windows_error.h"

#include "agent/tarnctl/text.h"

#include <windows.h>

namespace tarnctl
{
void FailWithLastError(ExitCode code, const std::string& what)
{
    const DWORD error = GetLastError();
    wchar_t text[512];
    DWORD length = FormatMessageW(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr, error, 0, text,
        static_cast<DWORD>(std::size(text)), nullptr);
    while (length > 0 && (text[length - 1] <= L' ' || text[length - 1] == L'.'))
    {
        --length;
    }
    std::string reason = "error " + std::to_string(error);
    if (length > 0)
    {
        reason += " (" + ToUtf8({reinterpret_cast<const char16_t*>(text), length}) + ")";
    }
    throw Failure(code, what + ": " + reason);
}
}
