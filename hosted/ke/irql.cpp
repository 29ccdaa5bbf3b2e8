#include "hosted/ke/irql.h"

#include "hosted/ke/fast_mutex.h"
#include "hosted/ke/bug_check.h"

#include <deque>
#include <utility>

namespace hosted
{
namespace
{
constinit thread_local KIRQL currentLevel = PASSIVE_LEVEL;

using Deferred = std::deque<std::pair<void (*)(void*), void*>>;
thread_local Deferred deferred;
// Kept beside the queue so that the common case of lowering touches no object with a constructor.
constinit thread_local bool hasDeferred = false;

void RunDeferred()
{
    while (!deferred.empty() && currentLevel == PASSIVE_LEVEL)
    {
        auto [routine, context] = deferred.front();
        deferred.pop_front();
        hasDeferred = !deferred.empty();
        routine(context);
    }
}
}

KIRQL CurrentIrql()
{
    return currentLevel;
}

void SetIrql(KIRQL level)
{
    if (level > HIGH_LEVEL)
    {
        BugCheck("irql-range", "level %u does not exist", level);
    }
    if (level < APC_LEVEL && FastMutexesHeld() > 0)
    {
        BugCheck("irql-below-fast-mutex", "lowered to %u with %d fast mutexes held", level, FastMutexesHeld());
    }
    currentLevel = level;
    if (level == PASSIVE_LEVEL && hasDeferred)
    {
        RunDeferred();
    }
}

void RequireIrql(KIRQL highest, const char* routine)
{
    if (currentLevel > highest)
    {
        BugCheck("irql-too-high", "%s was called at %u, allowed up to %u", routine, currentLevel, highest);
    }
}

void RunAtPassiveLevel(void (*routine)(void* context), void* context)
{
    if (currentLevel == PASSIVE_LEVEL)
    {
        routine(context);
        return;
    }
    deferred.emplace_back(routine, context);
    hasDeferred = true;
}

RaisedIrql::RaisedIrql(KIRQL level) : level_(level), previous_(currentLevel)
{
    if (level < previous_)
    {
        BugCheck("irql-not-raised", "a raise from %u to %u", previous_, level);
    }
    SetIrql(level);
}

RaisedIrql::~RaisedIrql()
{
    if (currentLevel != level_)
    {
        BugCheck("irql-not-restored", "a scope raised to %u ends at %u", level_, currentLevel);
    }
    SetIrql(previous_);
}
}

extern "C" KIRQL NTAPI KeGetCurrentIrql(void)
{
    return hosted::CurrentIrql();
}
