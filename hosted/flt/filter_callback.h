// What every callback of a filter has to keep, whatever it is called for.
#pragma once

#include <ntifs.h>

namespace hosted
{
// Made before a callback is called, checked after it returned: the same IRQL, no fast mutex more or less.
class CallbackRules
{
public:
    enum Waiting
    {
        MayNotWait,
        MayWait // outside any operation: may wait for callbacks to end
    };

    explicit CallbackRules(const char* what, Waiting waiting = MayNotWait);
    ~CallbackRules();
    CallbackRules(const CallbackRules&) = delete;
    CallbackRules& operator=(const CallbackRules&) = delete;

    void Check() const;

private:
    const char* what_;
    Waiting waiting_;
    KIRQL irql_;
    int mutexes_;
};

// Whether the calling thread is inside a callback that may not wait for others.
bool InsideCallback();
}
