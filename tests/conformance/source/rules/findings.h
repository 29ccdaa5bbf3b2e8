// What a rule finds, and what is allowed to stand against it.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace source
{
struct Finding
{
    std::string Path;
    int Line;
    std::string Text; // begins with what was found
};

using Findings = std::vector<Finding>;

// One place that a rule leaves alone.
struct Exception
{
    std::string_view Path;
    std::string_view Begin;  // of the finding's text
    std::string_view Reason; // why it may stay, for people
};

// One line for each finding that no exception covers, and for each exception that covers nothing or gives no reason.
// Empty when the rule is kept.
std::string Judge(const Findings& findings, const std::vector<Exception>& exceptions = {});
}
