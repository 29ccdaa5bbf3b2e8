// The answers of one platform, by question.
#pragma once

#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace platform
{
using AnswerList = std::map<std::string, std::string>;

// From lines "QUESTION: ANSWER". Throws std::runtime_error for a line of another form and for a question asked twice,
// and when the last line is not the one that says that nothing is missing.
AnswerList ParseAnswers(std::string_view text);
// Adds what the driver printed to the debugger; the marked prints have the same form.
void AddPrints(const std::vector<std::string>& prints, AnswerList* answers);
// Adds the bytes that the questions left in the file they wrote to.
void AddWrittenFile(std::string_view bytes, AnswerList* answers);
}
