#include "demo/report.h"

#include <cstdio>

namespace demo
{
void Say(const std::string& step, const std::string& what)
{
    std::printf("%-10s %s\n", step.c_str(), what.c_str());
    std::fflush(stdout);
}

std::string StatusText(NTSTATUS status)
{
    char text[16];
    std::snprintf(text, sizeof(text), "0x%08X", static_cast<unsigned>(status));
    return text;
}

void Expect(bool held, const std::string& what)
{
    if (!held)
    {
        throw StepFailed(what);
    }
}

void ExpectStatus(NTSTATUS status, NTSTATUS wanted, const std::string& what)
{
    Expect(status == wanted, what + ": status " + StatusText(status) + ", wanted " + StatusText(wanted));
}

std::string Stopwatch::Text() const
{
    const std::chrono::duration<double> passed = std::chrono::steady_clock::now() - start_;
    char text[32];
    std::snprintf(text, sizeof(text), "%.2f s", passed.count());
    return text;
}
}
