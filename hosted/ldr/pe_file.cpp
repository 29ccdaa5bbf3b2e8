#include "hosted/ldr/pe_file.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace hosted
{
namespace
{
using Bytes = std::vector<std::uint8_t>;

constexpr std::uint16_t MachineX64 = 0x8664;
constexpr std::uint16_t MagicPe32Plus = 0x20b;
constexpr std::uint16_t SubsystemNative = 1;
// Data directories, by index.
constexpr std::uint32_t ImportDirectory = 1;
constexpr std::uint32_t ExceptionDirectory = 3;
constexpr std::uint32_t RelocationDirectory = 5;
// Far above any driver; what is beyond it is a damaged number.
constexpr std::uint32_t LargestImage = 64 << 20;

constexpr std::uint32_t SectionHeaderBytes = 40;
constexpr std::uint32_t SectionExecutable = 0x20000000;
constexpr std::uint32_t SectionReadable = 0x40000000;
constexpr std::uint32_t SectionWritable = 0x80000000;

constexpr std::uint16_t RelocationNone = 0;
constexpr std::uint16_t RelocationAddress64 = 10;

std::string Hex(std::uint64_t value)
{
    char text[24];
    std::snprintf(text, sizeof(text), "0x%llx", static_cast<unsigned long long>(value));
    return text;
}

// Numbers out of a run of bytes; running past its end is a BadImage that names what was being read.
class Reader
{
public:
    Reader(const void* bytes, size_t size, const char* what)
        : bytes_(static_cast<const std::uint8_t*>(bytes)), size_(size), what_(what)
    {
    }

    template <class T>
    T At(std::uint64_t offset) const
    {
        if (offset > size_ || size_ - offset < sizeof(T))
        {
            throw BadImage(std::string("the image is cut off in its ") + what_);
        }
        T value;
        std::memcpy(&value, bytes_ + offset, sizeof(value));
        return value;
    }

    std::string TextAt(std::uint64_t offset) const
    {
        std::string text;
        for (char character = At<char>(offset); character != '\0'; character = At<char>(++offset))
        {
            text += character;
        }
        return text;
    }

private:
    const std::uint8_t* bytes_;
    size_t size_;
    const char* what_;
};

struct Headers
{
    std::uint32_t Pe;
    std::uint32_t Optional;
    std::uint32_t Sections;
    std::uint16_t SectionCount;
};

Headers FindHeaders(const Reader& file)
{
    if (file.At<std::uint16_t>(0) != 0x5a4d)
    {
        throw BadImage("not an image: it does not begin with MZ");
    }
    Headers headers;
    headers.Pe = file.At<std::uint32_t>(0x3c);
    if (file.At<std::uint32_t>(headers.Pe) != 0x4550)
    {
        throw BadImage("not an image: it has no PE header");
    }
    const auto machine = file.At<std::uint16_t>(std::uint64_t{headers.Pe} + 4);
    if (machine != MachineX64)
    {
        throw BadImage("an image for another machine (" + Hex(machine) + "), wanted x64 (0x8664)");
    }
    headers.SectionCount = file.At<std::uint16_t>(std::uint64_t{headers.Pe} + 6);
    headers.Optional = headers.Pe + 24;
    if (file.At<std::uint16_t>(headers.Optional) != MagicPe32Plus)
    {
        throw BadImage("an image without a 64-bit optional header");
    }
    headers.Sections = headers.Optional + file.At<std::uint16_t>(std::uint64_t{headers.Pe} + 20);
    return headers;
}

// A table of the image; absent ones have no bytes.
void ReadDirectory(const Reader& file, const Headers& headers, std::uint32_t index, std::uint32_t imageSize,
    std::uint32_t* address, std::uint32_t* bytes)
{
    if (index >= file.At<std::uint32_t>(headers.Optional + 108))
    {
        return;
    }
    *address = file.At<std::uint32_t>(headers.Optional + 112 + index * 8);
    *bytes = file.At<std::uint32_t>(headers.Optional + 116 + index * 8);
    if (*bytes != 0 && (*address >= imageSize || imageSize - *address < *bytes))
    {
        throw BadImage("table " + std::to_string(index) + " lies outside the image");
    }
}

ImageSection ReadSection(const Reader& file, std::uint32_t header)
{
    ImageSection section;
    for (std::uint32_t i = 0; i < 8; ++i)
    {
        const char character = file.At<char>(header + i);
        if (character == '\0')
        {
            break;
        }
        section.Name += character;
    }
    section.Size = file.At<std::uint32_t>(header + 8);
    section.Address = file.At<std::uint32_t>(header + 12);
    section.FileSize = file.At<std::uint32_t>(header + 16);
    section.FileOffset = file.At<std::uint32_t>(header + 20);
    const auto flags = file.At<std::uint32_t>(header + 36);
    section.Readable = (flags & SectionReadable) != 0;
    section.Writable = (flags & SectionWritable) != 0;
    section.Executable = (flags & SectionExecutable) != 0;
    return section;
}

void CheckSection(const ImageSection& section, const ImageLayout& layout, size_t fileSize)
{
    if (section.Address >= layout.Size || layout.Size - section.Address < std::max(section.Size, 1u))
    {
        throw BadImage("section " + section.Name + " lies outside the image");
    }
    if (section.FileSize != 0 && (section.FileOffset > fileSize || fileSize - section.FileOffset < section.FileSize))
    {
        throw BadImage("the image is cut off in its section " + section.Name);
    }
    if (section.Writable && section.Executable)
    {
        throw BadImage("section " + section.Name + " is both writable and executable");
    }
}

void Relocate(Bytes& memory, std::uint64_t place, std::uint64_t delta)
{
    if (place > memory.size() || memory.size() - place < sizeof(std::uint64_t))
    {
        throw BadImage("a relocation at " + Hex(place) + ", outside the image");
    }
    std::uint64_t value;
    std::memcpy(&value, &memory[place], sizeof(value));
    value += delta;
    std::memcpy(&memory[place], &value, sizeof(value));
}
}

ImageLayout ReadImageLayout(const std::string& file)
{
    const Reader reader(file.data(), file.size(), "headers");
    const Headers headers = FindHeaders(reader);
    ImageLayout layout;
    layout.Entry = reader.At<std::uint32_t>(headers.Optional + 16);
    layout.PreferredBase = reader.At<std::uint64_t>(headers.Optional + 24);
    layout.Size = reader.At<std::uint32_t>(headers.Optional + 56);
    layout.HeaderSize = reader.At<std::uint32_t>(headers.Optional + 60);
    if (reader.At<std::uint16_t>(headers.Optional + 68) != SubsystemNative)
    {
        throw BadImage("an image that is no driver: its subsystem is not native");
    }
    if (layout.Size == 0 || layout.Size > LargestImage || layout.Entry == 0 || layout.Entry >= layout.Size)
    {
        throw BadImage("an image of " + std::to_string(layout.Size) + " bytes with its entry at " + Hex(layout.Entry));
    }
    if (layout.HeaderSize > file.size() || layout.HeaderSize > layout.Size)
    {
        throw BadImage("the image is cut off in its headers");
    }
    ReadDirectory(reader, headers, ImportDirectory, layout.Size, &layout.Imports, &layout.ImportBytes);
    ReadDirectory(reader, headers, ExceptionDirectory, layout.Size, &layout.UnwindTable, &layout.UnwindBytes);
    ReadDirectory(reader, headers, RelocationDirectory, layout.Size, &layout.Relocations, &layout.RelocationBytes);
    for (std::uint32_t i = 0; i < headers.SectionCount; ++i)
    {
        layout.Sections.push_back(ReadSection(reader, headers.Sections + i * SectionHeaderBytes));
        CheckSection(layout.Sections.back(), layout, file.size());
    }
    return layout;
}

Bytes MapImage(const std::string& file, const ImageLayout& layout)
{
    Bytes memory(layout.Size);
    std::memcpy(memory.data(), file.data(), layout.HeaderSize);
    for (const ImageSection& section : layout.Sections)
    {
        // The file pads a section to its alignment, which memory need not have room for.
        const std::uint32_t bytes = std::min(section.FileSize, layout.Size - section.Address);
        std::memcpy(memory.data() + section.Address, file.data() + section.FileOffset, bytes);
    }
    return memory;
}

void RelocateImage(Bytes& memory, const ImageLayout& layout, std::uint64_t base)
{
    const std::uint64_t delta = base - layout.PreferredBase;
    const Reader reader(memory.data() + layout.Relocations, layout.RelocationBytes, "relocations");
    constexpr std::uint32_t blockHeader = 8;
    for (std::uint32_t at = 0; at < layout.RelocationBytes;)
    {
        const auto page = reader.At<std::uint32_t>(at);
        const auto bytes = reader.At<std::uint32_t>(at + 4);
        if (bytes < blockHeader || layout.RelocationBytes - at < bytes)
        {
            throw BadImage("a block of " + std::to_string(bytes) + " bytes in the relocations");
        }
        for (std::uint32_t entry = at + blockHeader; entry + 2 <= at + bytes; entry += 2)
        {
            const auto word = reader.At<std::uint16_t>(entry);
            const std::uint16_t kind = word >> 12;
            if (kind == RelocationAddress64)
            {
                Relocate(memory, std::uint64_t{page} + (word & 0xfff), delta);
            }
            else if (kind != RelocationNone)
            {
                throw BadImage("a relocation of kind " + std::to_string(kind));
            }
        }
        at += bytes;
    }
}

std::vector<ImageImport> ReadImports(const Bytes& memory, const ImageLayout& layout)
{
    std::vector<ImageImport> imports;
    if (layout.ImportBytes == 0)
    {
        return imports;
    }
    const Reader reader(memory.data(), memory.size(), "imports");
    constexpr std::uint32_t descriptorBytes = 20;
    for (std::uint64_t at = layout.Imports;; at += descriptorBytes)
    {
        const auto names = reader.At<std::uint32_t>(at);
        const auto module = reader.At<std::uint32_t>(at + 12);
        auto slot = reader.At<std::uint32_t>(at + 16);
        if (module == 0 || slot == 0)
        {
            return imports;
        }
        const std::string moduleName = reader.TextAt(module);
        for (std::uint64_t name = names != 0 ? names : slot;; name += 8, slot += 8)
        {
            const auto hint = reader.At<std::uint64_t>(name);
            if (hint == 0)
            {
                break;
            }
            if (hint >> 31 != 0)
            {
                throw BadImage("an import from " + moduleName + " by number");
            }
            reader.At<std::uint64_t>(slot);
            imports.push_back({moduleName, reader.TextAt(hint + 2), slot});
        }
    }
}
}
