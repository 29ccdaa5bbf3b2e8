#include "pdb_signature.h"

#include <algorithm>
#include <cstdio>
#include <optional>
#include <string_view>

namespace package
{

namespace
{

constexpr std::size_t DebugDirectory = 6;
constexpr std::uint32_t DebugEntrySize = 28;
constexpr std::uint32_t DebugTypeCodeView = 2;
constexpr std::uint32_t CodeViewSignature = 0x53445352; // "RSDS"
constexpr std::size_t GuidSize = 16;

constexpr std::string_view Magic("Microsoft C/C++ MSF 7.00\r\n\x1a"
                                 "DS\0\0\0",
    32);
constexpr std::size_t InformationStream = 1;
constexpr std::size_t DebugStream = 3;

template <typename ReadByte>
std::string SignatureText(ReadByte readByte, std::uint32_t age)
{
    std::string text;
    for (std::size_t index = 0; index < GuidSize; ++index)
    {
        char digits[3];
        std::snprintf(digits, sizeof(digits), "%02x", static_cast<unsigned>(readByte(index)));
        text += digits;
    }
    return text + "-" + std::to_string(age);
}

// A PDB is a small file system: blocks, and a directory that says which blocks each stream consists of.
class Msf
{
public:
    explicit Msf(const std::vector<std::uint8_t>& bytes) : file(bytes)
    {
        valid =
            file.size() >= 56 && std::equal(Magic.begin(), Magic.end(), file.begin(), [](char magic, std::uint8_t byte)
                                     { return static_cast<std::uint8_t>(magic) == byte; });
        blockSize = valid ? Read32(32) : 0;
        valid = valid && blockSize >= 512 && blockSize % 4 == 0;
        if (valid)
        {
            mapOffset = std::size_t{Read32(52)} * blockSize;
        }
    }

    // 32 bits of a stream, at an offset within its first block; nothing when they are not there.
    std::optional<std::uint32_t> Stream32(std::size_t stream, std::size_t offset)
    {
        const std::uint32_t streams = Directory32(0);
        if (!valid || stream >= streams || offset + 4 > blockSize || Directory32(1 + stream) < offset + 4)
        {
            return std::nullopt;
        }
        std::size_t block = 1 + streams;
        for (std::size_t before = 0; before < stream; ++before)
        {
            const std::uint32_t size = Directory32(1 + before);
            block += size == 0xffffffff ? 0 : (size + blockSize - 1) / blockSize;
        }
        const std::uint32_t value = Read32(std::size_t{Directory32(block)} * blockSize + offset);
        return valid ? std::optional(value) : std::nullopt;
    }

private:
    std::uint32_t Read32(std::size_t offset)
    {
        if (offset > file.size() || file.size() - offset < 4)
        {
            valid = false;
            return 0;
        }
        return file[offset] | file[offset + 1] << 8 | file[offset + 2] << 16 | std::uint32_t{file[offset + 3]} << 24;
    }

    // The directory's 32-bit words; it is spread over blocks itself.
    std::uint32_t Directory32(std::size_t index)
    {
        if (!valid)
        {
            return 0;
        }
        const std::size_t position = index * 4;
        const std::size_t block = Read32(mapOffset + position / blockSize * 4);
        return Read32(block * blockSize + position % blockSize);
    }

    const std::vector<std::uint8_t>& file;
    bool valid = false;
    std::uint32_t blockSize = 0;
    std::size_t mapOffset = 0;
};

}

std::string ImagePdbSignature(const pe::Image& image)
{
    const auto directory = image.Directory(DebugDirectory);
    for (std::uint32_t position = 0; position + DebugEntrySize <= directory.Size; position += DebugEntrySize)
    {
        const std::size_t entry = image.FileOffset(directory.VirtualAddress + position);
        const std::size_t record = image.Read32(entry + 24);
        if (image.Read32(entry + 12) == DebugTypeCodeView && image.Read32(record) == CodeViewSignature)
        {
            return SignatureText([&](std::size_t index) { return image.ReadBytes(record + 4 + index, 1); },
                image.Read32(record + 4 + GuidSize));
        }
    }
    return {};
}

std::string PdbSignature(const std::vector<std::uint8_t>& file)
{
    Msf msf(file);
    std::vector<std::uint32_t> guid;
    // Behind version, time stamp and an age that is not the one which debuggers compare.
    for (std::size_t offset = 12; offset < 12 + GuidSize; offset += 4)
    {
        const auto part = msf.Stream32(InformationStream, offset);
        if (!part)
        {
            return {};
        }
        guid.push_back(*part);
    }
    const auto age = msf.Stream32(DebugStream, 8);
    return age ? SignatureText([&](std::size_t index) { return guid[index / 4] >> index % 4 * 8 & 0xff; }, *age)
               : std::string();
}

}
