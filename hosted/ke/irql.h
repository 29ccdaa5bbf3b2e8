// The interrupt request level of the calling thread.
#pragma once

#include <ntifs.h>

namespace hosted
{
KIRQL CurrentIrql();

// Raising and lowering; lowering below the level of a held fast mutex is a bug check.
void SetIrql(KIRQL level);

// Bug check unless the calling thread runs at `highest` or below.
void RequireIrql(KIRQL highest, const char* routine);

// Runs routine(context) at once when the calling thread is at PASSIVE_LEVEL, otherwise as soon as its level drops
// there: work that Windows hands to a worker thread. Calls are made in the order in which they were handed in.
void RunAtPassiveLevel(void (*routine)(void* context), void* context);

// Runs a scope at a raised level (a level below the current one is a bug check).
class RaisedIrql
{
public:
    explicit RaisedIrql(KIRQL level);
    ~RaisedIrql();
    RaisedIrql(const RaisedIrql&) = delete;
    RaisedIrql& operator=(const RaisedIrql&) = delete;

private:
    KIRQL level_;
    KIRQL previous_;
};
}
