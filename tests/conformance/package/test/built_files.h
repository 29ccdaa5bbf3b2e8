// What the Windows build has left, for tests that look at it or at changed copies of it.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

namespace package
{

inline std::filesystem::path BuildFolder()
{
    return std::filesystem::path(TARNVEIL_IMAGE).parent_path();
}

inline std::vector<std::uint8_t> ReadBytes(const std::filesystem::path& path)
{
    std::ifstream stream(path, std::ios::binary);
    EXPECT_TRUE(stream) << path << " is missing";
    return std::vector<std::uint8_t>(std::istreambuf_iterator<char>(stream), {});
}

inline std::string ReadText(const std::filesystem::path& path)
{
    const auto bytes = ReadBytes(path);
    return std::string(bytes.begin(), bytes.end());
}

inline void WriteBytes(const std::filesystem::path& path, const std::vector<std::uint8_t>& bytes)
{
    std::ofstream stream(path, std::ios::binary);
    stream.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    EXPECT_TRUE(stream.flush()) << path;
}

inline void WriteText(const std::filesystem::path& path, const std::string& text)
{
    WriteBytes(path, std::vector<std::uint8_t>(text.begin(), text.end()));
}

// The text with every occurrence of `from` replaced; there must be one.
inline std::string ReplacedAll(std::string text, const std::string& from, const std::string& to)
{
    std::size_t place = text.find(from);
    EXPECT_NE(place, std::string::npos) << from;
    for (; place != std::string::npos; place = text.find(from, place + to.size()))
    {
        text.replace(place, from.size(), to);
    }
    return text;
}

inline std::string ReplacedFirst(std::string text, const std::string& from, const std::string& to)
{
    const std::size_t place = text.find(from);
    EXPECT_NE(place, std::string::npos) << from;
    return place == std::string::npos ? text : text.replace(place, from.size(), to);
}

inline void Write32(std::vector<std::uint8_t>& file, std::size_t offset, std::uint32_t value)
{
    for (std::size_t index = 0; index < 4; ++index)
    {
        file.at(offset + index) = static_cast<std::uint8_t>(value >> 8 * index);
    }
}

}
