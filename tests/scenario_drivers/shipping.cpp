#include "hosted/ke/system_model.h"
#include "hosted/ldr/loaded_image.h"
#include "tests/scenario/driver_under_test.h"

#include <gtest/gtest.h>

#include <memory>

namespace scenario_test
{
namespace
{
// Overruns of the image are seen at the page behind the block; nothing else watches its accesses.
const bool PoolIsGuarded = []
{
    hosted::GuardEveryPool();
    return true;
}();

std::unique_ptr<hosted::LoadedImage> image;
}

// Each load gets the image as it lies in the file, as on Windows.
DRIVER_INITIALIZE* DriverUnderTest()
{
    image.reset();
    try
    {
        image = std::make_unique<hosted::LoadedImage>(TARNVEIL_IMAGE);
    }
    catch (const hosted::BadImage& reason)
    {
        ADD_FAILURE() << reason.what();
        std::abort();
    }
    return image->Entry();
}
}
