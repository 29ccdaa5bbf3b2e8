// What a check has to say: one text per broken rule, each beginning with the rule's name and a colon.
#pragma once

#include <string>
#include <utility>
#include <vector>

namespace package
{

using Findings = std::vector<std::string>;

inline void Require(bool holds, Findings& findings, std::string finding)
{
    if (!holds)
    {
        findings.push_back(std::move(finding));
    }
}

}
