// What every test of a live volume begins and ends with.
#pragma once

#include "tests/live/test/live_volume.h"

#include <gtest/gtest.h>

#include <memory>

namespace live_test
{
class LiveTest : public testing::Test
{
protected:
    // For SetUp; the arguments are LiveVolume's. Skips the test where nothing can be mounted.
    void Serve(const std::string& image = {}, const std::string& options = {})
    {
        std::string reason;
        if (!CanMount(&reason))
        {
            GTEST_SKIP() << reason;
        }
        volume = std::make_unique<LiveVolume>(image, options);
    }
    void TearDown() override
    {
        if (volume && volume->Server() > 0)
        {
            EXPECT_EQ(volume->End(), 0) << volume->Log();
        }
    }

    // In the folder that has the store, the mount and the launcher in it.
    Outcome Outside(const std::string& script) const { return volume->Outside(script, volume->Folder()); }

    std::unique_ptr<LiveVolume> volume;
};
}
