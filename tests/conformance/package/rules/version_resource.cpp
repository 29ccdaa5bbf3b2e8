#include "version_resource.h"

namespace package
{

namespace
{

constexpr std::size_t ResourceDirectory = 2;
constexpr std::uint32_t VersionType = 16;
constexpr std::uint32_t FixedSignature = 0xfeef04bd;
constexpr std::uint32_t Subdirectory = 0x80000000;

std::size_t Aligned(std::size_t offset, std::size_t start)
{
    return start + ((offset - start + 3) & ~std::size_t{3});
}

// A block of the resource: length, length of the value, kind, name, value, blocks inside.
struct Block
{
    std::string Name;
    std::size_t Value;
    std::size_t End;
    std::size_t ValueLength;
};

// Only the names and values of versions are read, which are ASCII.
std::string ReadWide(const pe::Image& image, std::size_t& at, std::size_t end)
{
    std::string text;
    while (at < end)
    {
        const std::uint16_t unit = image.Read16(at);
        at += 2;
        if (unit == 0)
        {
            break;
        }
        text.push_back(unit < 0x80 ? static_cast<char>(unit) : '?');
    }
    return text;
}

// `start` is that of the whole resource, from which everything is aligned.
Block ReadBlock(const pe::Image& image, std::size_t at, std::size_t start)
{
    Block block{};
    block.End = at + image.Read16(at);
    block.ValueLength = image.Read16(at + 2);
    if (block.End <= at)
    {
        throw pe::Malformed("an empty block in the version resource");
    }
    std::size_t position = at + 6;
    block.Name = ReadWide(image, position, block.End);
    block.Value = Aligned(position, start);
    return block;
}

void ReadStrings(const pe::Image& image, const Block& table, std::size_t start, VersionResource& resource)
{
    for (std::size_t at = table.Value; at < table.End;)
    {
        const Block text = ReadBlock(image, at, start);
        std::size_t position = text.Value;
        resource.Strings[text.Name] = ReadWide(image, position, text.End);
        at = Aligned(text.End, start);
    }
}

std::string VersionText(std::uint32_t high, std::uint32_t low)
{
    return std::to_string(high >> 16) + "." + std::to_string(high & 0xffff) + "." + std::to_string(low >> 16) + "." +
           std::to_string(low & 0xffff);
}

// Goes down type, name and language; returns the offset of the data's description, 0 if there is none.
std::size_t FindVersionData(const pe::Image& image, std::size_t root)
{
    std::size_t table = root;
    for (int level = 0; level < 3; ++level)
    {
        const std::size_t named = image.Read16(table + 12);
        const std::size_t count = named + image.Read16(table + 14);
        std::size_t next = 0;
        for (std::size_t index = 0; index < count && next == 0; ++index)
        {
            const std::size_t entry = table + 16 + index * 8;
            if (level > 0 || image.Read32(entry) == VersionType)
            {
                next = root + (image.Read32(entry + 4) & ~Subdirectory);
            }
        }
        if (next == 0)
        {
            return 0;
        }
        table = next;
    }
    return table;
}

}

std::optional<VersionResource> ReadVersionResource(const pe::Image& image)
{
    const auto directory = image.Directory(ResourceDirectory);
    const std::size_t description =
        directory.VirtualAddress == 0 ? 0 : FindVersionData(image, image.FileOffset(directory.VirtualAddress));
    if (description == 0)
    {
        return std::nullopt;
    }
    const std::size_t start = image.FileOffset(image.Read32(description));
    const Block whole = ReadBlock(image, start, start);
    if (whole.Name != "VS_VERSION_INFO" || image.Read32(whole.Value) != FixedSignature)
    {
        throw pe::Malformed("the version resource has no signature");
    }
    VersionResource resource{.FileVersion = VersionText(image.Read32(whole.Value + 8), image.Read32(whole.Value + 12)),
        .ProductVersion = VersionText(image.Read32(whole.Value + 16), image.Read32(whole.Value + 20)),
        .FileType = image.Read32(whole.Value + 36),
        .Strings = {}};
    for (std::size_t at = Aligned(whole.Value + whole.ValueLength, start); at < whole.End;)
    {
        const Block block = ReadBlock(image, at, start);
        if (block.Name == "StringFileInfo")
        {
            ReadStrings(image, ReadBlock(image, block.Value, start), start, resource);
        }
        at = Aligned(block.End, start);
    }
    return resource;
}

}
