#include "hosted/ob/caller.h"

#include "hosted/ke/bug_check.h"

namespace hosted
{
namespace
{
constinit const CallerSource* source = nullptr;
}

CallerSource::CallerSource()
{
    if (source != nullptr)
    {
        BugCheck("TWO_CALLER_SOURCES", "callers are known already");
    }
    source = this;
}

const CallerSource& Caller()
{
    if (source == nullptr)
    {
        BugCheck("NO_CALLER_SOURCE", "nobody says for which process the calling thread works");
    }
    return *source;
}
}
