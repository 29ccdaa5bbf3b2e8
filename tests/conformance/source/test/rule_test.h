// Made-up sources for the tests of the rules.
#pragma once

#include "tests/conformance/source/rules/findings.h"
#include "tests/conformance/source/reader/source_text.h"

#include <functional>
#include <string>
#include <vector>

namespace source
{
// What the rule finds in the text, as "line: finding".
inline std::vector<std::string> Found(
    const std::function<Findings(const SourceText&)>& rule, const std::string& text, const std::string& path = "a.cpp")
{
    std::vector<std::string> found;
    for (const Finding& finding : rule(ReadSource(path, text)))
    {
        found.push_back(std::to_string(finding.Line) + ": " + finding.Text);
    }
    return found;
}
}
