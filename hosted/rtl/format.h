// The formatter behind the kernel's print routines.
#pragma once

#include "hosted/rtl/wide_string.h"

namespace hosted
{
enum class FormatFamily
{
    Narrow, // %s and %c take narrow arguments (UTF-8), %S and %C wide ones
    Wide    // the other way round; narrow arguments are widened byte by byte
};

// Formats by the rules of the platform's C run-time library: flags "-+ #0", width, precision, sizes h l ll w I I32
// I64, conversions d i u o x X c C s S p Z. Conversions for floating point and %n are bug checks: the kernel's
// library has no use for the first, and nothing good comes of the second.
WideString FormatText(FormatFamily family, WideView format, __builtin_ms_va_list* arguments);
}
