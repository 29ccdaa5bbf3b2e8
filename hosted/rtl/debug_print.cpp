#include "hosted/rtl/debug_print.h"

#include "hosted/ke/bug_check.h"
#include "hosted/rtl/format.h"

#include <deque>
#include <mutex>

namespace hosted
{
namespace
{
constexpr size_t MostBytes = 512;

struct Capture
{
    std::mutex Lock;
    std::deque<std::string> Texts;
    size_t Newest = 0;
    FILE* Echo = nullptr;
};

Capture& Prints()
{
    static Capture& capture = *new Capture;
    return capture;
}

// Cuts to the limit without leaving a part of a character.
void Cut(std::string& text)
{
    if (text.size() <= MostBytes)
    {
        return;
    }
    size_t length = MostBytes;
    while (length > 0 && (static_cast<unsigned char>(text[length]) & 0xC0) == 0x80)
    {
        --length;
    }
    text.resize(length);
}
}

std::vector<std::string> DebugPrints()
{
    std::lock_guard lock(Prints().Lock);
    return {Prints().Texts.begin(), Prints().Texts.end()};
}

void ClearDebugPrints()
{
    std::lock_guard lock(Prints().Lock);
    Prints().Texts.clear();
}

void EchoDebugPrints(FILE* file)
{
    std::lock_guard lock(Prints().Lock);
    Prints().Echo = file;
}

void LimitDebugPrints(size_t newest)
{
    std::lock_guard lock(Prints().Lock);
    Prints().Newest = newest;
}
}

extern "C" ULONG __cdecl DbgPrint(PCSTR Format, ...)
{
    using namespace hosted;
    if (Format == nullptr)
    {
        BugCheck("null-pointer", "DbgPrint without a format");
    }
    __builtin_ms_va_list arguments;
    __builtin_ms_va_start(arguments, Format);
    WideString format = Widen(Format);
    std::string text = Narrow(FormatText(FormatFamily::Narrow, format, &arguments));
    __builtin_ms_va_end(arguments);
    Cut(text);

    Capture& capture = Prints();
    std::lock_guard lock(capture.Lock);
    if (capture.Echo != nullptr)
    {
        fwrite(text.data(), 1, text.size(), capture.Echo);
    }
    capture.Texts.push_back(std::move(text));
    while (capture.Newest != 0 && capture.Texts.size() > capture.Newest)
    {
        capture.Texts.pop_front();
    }
    return STATUS_SUCCESS;
}
