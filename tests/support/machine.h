// The machine as tests use it: what it leaves behind fails the current test.
#pragma once

#include "hosted/machine/machine.h"

#include <gtest/gtest.h>

inline const bool LeaksFailTests = []
{
    hosted::SetLeakHandler([](const std::string& leaks) { ADD_FAILURE() << "left behind:\n" << leaks; });
    return true;
}();
