// Files of this machine for the length of a test.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace tarnctl_test
{
class TemporaryFolder
{
public:
    TemporaryFolder()
    {
        std::string pattern = std::filesystem::temp_directory_path() / "tarnctl-test-XXXXXX";
        EXPECT_NE(mkdtemp(pattern.data()), nullptr);
        path_ = pattern;
    }
    ~TemporaryFolder() { std::filesystem::remove_all(path_); }
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;

    std::string Path(const std::string& name) const { return path_ + "/" + name; }

    void Put(const std::string& name, std::string_view bytes) const
    {
        std::ofstream file(Path(name), std::ios::binary);
        file << bytes;
        ASSERT_TRUE(file.good());
    }
    std::string Get(const std::string& name) const
    {
        const std::ifstream file(Path(name), std::ios::binary);
        EXPECT_TRUE(file.good()) << name;
        return (std::ostringstream() << file.rdbuf()).str();
    }
    std::vector<std::string> Names() const
    {
        std::vector<std::string> names;
        for (const auto& entry : std::filesystem::directory_iterator(path_))
        {
            names.push_back(entry.path().filename());
        }
        return names;
    }

private:
    std::string path_;
};
}
