// Where tests step between a query and what follows it, or answer in the system's place.
#pragma once

#include <ntifs.h>

#include <functional>
#include <optional>

namespace hosted
{
// An answer of a size query: the status, and what the variable for the required length receives.
struct QueryAnswer
{
    NTSTATUS Status;
    ULONG RequiredLength;
};

// Asked before the system answers: the information class, the length of the caller's buffer in bytes. No answer
// lets the system answer. Runs on the querying thread.
using QueryHook = std::function<std::optional<QueryAnswer>(ULONG kind, ULONG length)>;

// Each replaces the one before; an empty function removes it.
void SetProcessQueryHook(QueryHook hook);
void SetSystemQueryHook(QueryHook hook);
// Runs at the start of each look-up of a process by id, on the looking thread.
void SetBeforeProcessLookup(std::function<void(HANDLE)> hook);
void ResetQueryHooks();

// For the routines that ask.
std::optional<QueryAnswer> AskProcessQueryHook(ULONG kind, ULONG length);
std::optional<QueryAnswer> AskSystemQueryHook(ULONG kind, ULONG length);
void CallBeforeProcessLookup(HANDLE id);
}
