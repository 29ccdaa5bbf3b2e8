#include "tests/conformance/source/rules/findings.h"

namespace source
{
namespace
{
bool Covers(const Exception& exception, const Finding& finding)
{
    return exception.Path == finding.Path && finding.Text.starts_with(exception.Begin);
}
}

std::string Judge(const Findings& findings, const std::vector<Exception>& exceptions)
{
    std::string lines;
    std::vector<bool> needed(exceptions.size());
    for (const Finding& finding : findings)
    {
        bool covered = false;
        for (size_t index = 0; index < exceptions.size() && !covered; ++index)
        {
            covered = Covers(exceptions[index], finding);
            needed[index] = needed[index] || covered;
        }
        if (!covered)
        {
            lines += finding.Path + ":" + std::to_string(finding.Line) + ": " + finding.Text + "\n";
        }
    }
    for (size_t index = 0; index < exceptions.size(); ++index)
    {
        const std::string where = std::string(exceptions[index].Path) + ": " + std::string(exceptions[index].Begin);
        if (!needed[index])
        {
            lines += where + ": the exception is not needed\n";
        }
        if (exceptions[index].Reason.empty())
        {
            lines += where + ": the exception gives no reason\n";
        }
    }
    return lines;
}
}
