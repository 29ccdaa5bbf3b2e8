// Which driver the scenarios run: the natively built one, or in a program of its own the shipping image, in a machine
// whose pool is guarded.
#pragma once

#include <ntifs.h>

namespace scenario_test
{
// For one load. The one before must be unloaded, or its load have failed.
DRIVER_INITIALIZE* DriverUnderTest();
}
