// Who calls: what the object manager must know about the process that the calling thread works for.
#pragma once

#include "hosted/ob/handle_table.h"

namespace hosted
{
// Answers for every thread. ps/, which knows processes, has the one object of a type derived from this; to make it is
// all that it takes.
class CallerSource
{
public:
    CallerSource();
    CallerSource(const CallerSource&) = delete;
    CallerSource& operator=(const CallerSource&) = delete;

    // The bodies of the calling process and thread, without a reference: what the two pseudo-handles stand for.
    virtual void* Process() const = 0;
    virtual void* Thread() const = 0;
    // The handles of that process.
    virtual HandleTable& Handles() const = 0;

protected:
    ~CallerSource() = default;
};

// Bug check when nobody answers.
const CallerSource& Caller();
}
