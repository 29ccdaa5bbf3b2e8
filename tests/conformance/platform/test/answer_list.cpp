#include "tests/conformance/platform/test/answer_list.h"

#include <cstdio>
#include <stdexcept>

namespace platform
{
namespace
{
constexpr std::string_view Separator = ": ";
constexpr std::string_view PrintMark = "DbgPrint ";

void Add(std::string_view line, AnswerList* answers)
{
    const size_t end = line.find(Separator);
    if (end == std::string_view::npos)
    {
        throw std::runtime_error("no answer: " + std::string(line));
    }
    if (!answers->emplace(line.substr(0, end), line.substr(end + Separator.size())).second)
    {
        throw std::runtime_error("asked twice: " + std::string(line));
    }
}
}

AnswerList ParseAnswers(std::string_view text)
{
    AnswerList answers;
    std::string_view last;
    while (!text.empty())
    {
        last = text.substr(0, text.find('\n'));
        text.remove_prefix(last.size() + (last.size() < text.size() ? 1 : 0));
        Add(last, &answers);
    }
    if (last != "the end: reached")
    {
        throw std::runtime_error("the questions came to their end at: " + std::string(last));
    }
    return answers;
}

void AddPrints(const std::vector<std::string>& prints, AnswerList* answers)
{
    for (const std::string& print : prints)
    {
        if (print.starts_with(PrintMark))
        {
            std::string_view line = print;
            line.remove_suffix(line.ends_with('\n') ? 1 : 0);
            Add(line, answers);
        }
    }
}

void AddWrittenFile(std::string_view bytes, AnswerList* answers)
{
    std::string shown;
    for (const char byte : bytes)
    {
        char digits[3];
        std::snprintf(digits, sizeof(digits), "%02x", static_cast<unsigned char>(byte));
        shown += digits;
    }
    answers->emplace("ZwWriteFile leaves in the file", shown);
}
}
