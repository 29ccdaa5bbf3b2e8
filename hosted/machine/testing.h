// For test programs: what a machine leaves behind fails the current test.
#pragma once

#include "hosted/machine/machine.h"

#include <gtest/gtest.h>

namespace hosted
{
inline const bool LeaksFailTests = []
{
    SetLeakHandler([](const std::string& leaks) { ADD_FAILURE() << "left behind:\n" << leaks; });
    return true;
}();
}
