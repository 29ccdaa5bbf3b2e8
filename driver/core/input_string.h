// The string in a request's input. The agent terminates it; one that is not ends where the input ends.
#pragma once

#include "driver/core/request.h"
#include "driver/util/pool.h"

class InputString
{
public:
    // Takes what begins at that byte of the input. False when there is no memory for a terminated copy.
    // IRQL PASSIVE_LEVEL.
    bool Take(const Request& request, ULONG offset);

    // Null for a request without input or with less than the offset; else terminated. Good as long as the request and
    // this object are.
    PCWSTR Text() const { return text_; }

private:
    bool IsTerminated(ULONG characters) const;

    PCWSTR text_ = nullptr;
    PoolPointer<WCHAR> copy_;
};
