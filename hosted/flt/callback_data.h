// An operation while it is shown to the filter.
#pragma once

#include "hosted/flt/filter_state.h"

namespace hosted
{
// The callback data and what the filter manager knows about it. Lives for the time of one operation.
struct ShownOperation
{
    ULONG Signature;
    PFLT_INSTANCE Instance;
    FLT_IO_PARAMETER_BLOCK Block; // what the filter sees and may change
    FLT_CALLBACK_DATA Data;       // Data.Iopb == &Block
};

constexpr ULONG ShownSignature = 'DCtF';

// Bug check when the filter hands in data whose operation is over, or that is no callback data.
ShownOperation& OperationOf(PFLT_CALLBACK_DATA data, const char* routine);
}
