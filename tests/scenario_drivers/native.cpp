#include "hosted/machine/native_image.h"
#include "tests/scenario/driver_under_test.h"

namespace scenario_test
{
DRIVER_INITIALIZE* DriverUnderTest()
{
    return hosted::Image::Native;
}
}
