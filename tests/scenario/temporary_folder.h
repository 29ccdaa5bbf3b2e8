// A folder of the host for the time of a test.
#pragma once

#include <filesystem>
#include <stdlib.h>
#include <string>

namespace cipher_test
{
struct TemporaryFolder
{
    TemporaryFolder()
    {
        char name[] = "/tmp/scenario-volume-XXXXXX";
        Path = mkdtemp(name);
    }
    ~TemporaryFolder()
    {
        std::filesystem::remove_all(Path);
    }
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;

    std::string Path;
};
}
