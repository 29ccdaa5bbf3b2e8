#include "hosted/ps/query_hooks.h"

#include <mutex>

namespace hosted
{
namespace
{
std::mutex hookMutex;
QueryHook processQuery;
QueryHook systemQuery;
std::function<void(HANDLE)> beforeLookup;

// A copy, so that the hook runs without the lock and may replace itself.
template <class Hook>
Hook Copy(const Hook& hook)
{
    const std::lock_guard lock(hookMutex);
    return hook;
}

template <class Hook>
void Replace(Hook& hook, Hook value)
{
    const std::lock_guard lock(hookMutex);
    hook.swap(value);
}
}

void SetProcessQueryHook(QueryHook hook)
{
    Replace(processQuery, std::move(hook));
}

void SetSystemQueryHook(QueryHook hook)
{
    Replace(systemQuery, std::move(hook));
}

void SetBeforeProcessLookup(std::function<void(HANDLE)> hook)
{
    Replace(beforeLookup, std::move(hook));
}

void ResetQueryHooks()
{
    SetProcessQueryHook({});
    SetSystemQueryHook({});
    SetBeforeProcessLookup({});
}

std::optional<QueryAnswer> AskProcessQueryHook(ULONG kind, ULONG length)
{
    const QueryHook hook = Copy(processQuery);
    return hook ? hook(kind, length) : std::nullopt;
}

std::optional<QueryAnswer> AskSystemQueryHook(ULONG kind, ULONG length)
{
    const QueryHook hook = Copy(systemQuery);
    return hook ? hook(kind, length) : std::nullopt;
}

void CallBeforeProcessLookup(HANDLE id)
{
    const auto hook = Copy(beforeLookup);
    if (hook)
    {
        hook(id);
    }
}
}
