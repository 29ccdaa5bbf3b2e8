// A driver image file as it lies on the disk: parsed and checked, nothing executed.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

namespace hosted
{
// An image that cannot be loaded; what() says why.
class BadImage : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

struct ImageSection
{
    std::string Name;
    std::uint32_t Address = 0; // from the image's base, like every address here
    std::uint32_t Size = 0;    // in memory
    std::uint32_t FileOffset = 0;
    std::uint32_t FileSize = 0;
    bool Readable = false;
    bool Writable = false;
    bool Executable = false;
};

struct ImageImport
{
    std::string Module;
    std::string Name;
    std::uint32_t Slot = 0; // where the address goes
};

// What lies where in the image's memory.
struct ImageLayout
{
    std::uint64_t PreferredBase = 0;
    std::uint32_t Size = 0;
    std::uint32_t HeaderSize = 0;
    std::uint32_t Entry = 0;
    std::uint32_t UnwindTable = 0; // RUNTIME_FUNCTION records; 0 without one
    std::uint32_t UnwindBytes = 0;
    std::uint32_t Relocations = 0;
    std::uint32_t RelocationBytes = 0;
    std::uint32_t Imports = 0;
    std::uint32_t ImportBytes = 0;
    std::vector<ImageSection> Sections;
};

// Reads the headers. Throws BadImage for a file that is cut off, is no x64 native driver image, or whose sections do
// not lie inside file and image.
ImageLayout ReadImageLayout(const std::string& file);

// The file's bytes where they belong in memory: ImageLayout::Size bytes at the preferred base, zero where the file has
// nothing.
std::vector<std::uint8_t> MapImage(const std::string& file, const ImageLayout& layout);

// Makes the mapped bytes right for another base. Throws BadImage for a block that leaves the table, a place outside the
// image, or a kind of relocation that no x64 driver has.
void RelocateImage(std::vector<std::uint8_t>& memory, const ImageLayout& layout, std::uint64_t base);

// Throws BadImage for a table or a name that leaves the image, and for an import by number.
std::vector<ImageImport> ReadImports(const std::vector<std::uint8_t>& memory, const ImageLayout& layout);
}
