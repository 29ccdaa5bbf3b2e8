// Reads the version resource of an image.
#pragma once

#include "tests/conformance/image/pe_image.h"

#include <map>
#include <optional>
#include <string>

namespace package
{

struct VersionResource
{
    std::string FileVersion;    // "1.2.3.4", from the numbers
    std::string ProductVersion; // likewise
    std::uint32_t FileType;     // 3 for a driver
    std::map<std::string, std::string> Strings;
};

// Nothing for an image without one. Throws pe::Malformed when it cannot be read.
std::optional<VersionResource> ReadVersionResource(const pe::Image& image);

}
