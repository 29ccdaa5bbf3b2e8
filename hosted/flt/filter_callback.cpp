#include "hosted/flt/filter_callback.h"

#include "hosted/ke/fast_mutex.h"
#include "hosted/ke/bug_check.h"
#include "hosted/ke/irql.h"

namespace hosted
{
namespace
{
thread_local int callbackDepth = 0;
}

CallbackRules::CallbackRules(const char* what, Waiting waiting)
    : what_(what), waiting_(waiting), irql_(CurrentIrql()), mutexes_(FastMutexesHeld())
{
    callbackDepth += waiting_ == MayNotWait ? 1 : 0;
}

CallbackRules::~CallbackRules()
{
    callbackDepth -= waiting_ == MayNotWait ? 1 : 0;
}

void CallbackRules::Check() const
{
    if (FastMutexesHeld() != mutexes_)
    {
        BugCheck("FLT_CALLBACK_MUTEX", "the %s callback began with %d fast mutexes held and returned with %d", what_,
            mutexes_, FastMutexesHeld());
    }
    if (CurrentIrql() != irql_)
    {
        BugCheck("FLT_CALLBACK_IRQL", "the %s callback was called at IRQL %d and returned at %d", what_, irql_,
            CurrentIrql());
    }
}

bool InsideCallback()
{
    return callbackDepth != 0;
}
}
