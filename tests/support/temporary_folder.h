// A folder of the host for the time of a test.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

// What fails throws std::runtime_error, and so fails the test.
class TemporaryFolder
{
public:
    explicit TemporaryFolder(const std::filesystem::path& where = std::filesystem::temp_directory_path())
    {
        std::string pattern = (where / "tarnveil-test-XXXXXX").string();
        Need(mkdtemp(pattern.data()) != nullptr, pattern);
        path_ = pattern;
    }
    ~TemporaryFolder()
    {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;

    const std::filesystem::path& Path() const { return path_; }
    std::string Path(const std::string& name) const { return path_ / name; }

    void Put(const std::string& name, std::string_view bytes) const
    {
        std::ofstream file(Path(name), std::ios::binary);
        file << bytes;
        Need(file.good(), name);
    }
    std::string Get(const std::string& name) const
    {
        const std::ifstream file(Path(name), std::ios::binary);
        Need(file.good(), name);
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
    static void Need(bool success, const std::string& name)
    {
        if (!success)
        {
            throw std::runtime_error("cannot use " + name);
        }
    }

    std::filesystem::path path_;
};
