#include "pe_image.h"

#include <algorithm>
#include <utility>

namespace pe
{

namespace
{

constexpr std::size_t FileHeaderSize = 20;
constexpr std::size_t SectionHeaderSize = 40;
constexpr std::size_t ImportDescriptorSize = 20;
constexpr std::size_t DebugEntrySize = 28;
constexpr std::uint16_t OptionalHeaderMagic64 = 0x20b;
constexpr std::size_t ImportDirectory = 1;
constexpr std::size_t ExceptionDirectory = 3;
constexpr std::size_t DebugDirectory = 6;
constexpr std::uint32_t DebugTypeCodeView = 2;
constexpr std::uint32_t CodeViewSignature = 0x53445352; // "RSDS"
constexpr std::size_t CodeViewNameOffset = 24;          // behind the signature, the GUID and the age

}

Image::Image(std::vector<std::uint8_t> bytes) : file(std::move(bytes))
{
    if (Read16(0) != 0x5a4d)
    {
        throw Malformed("no MZ signature");
    }
    const std::size_t signature = Read32(0x3c);
    if (Read32(signature) != 0x4550)
    {
        throw Malformed("no PE signature");
    }
    fileHeader = signature + 4;
    optionalHeader = fileHeader + FileHeaderSize;
    if (Read16(optionalHeader) != OptionalHeaderMagic64)
    {
        throw Malformed("not a 64-bit image");
    }
    ReadSections();
}

void Image::ReadSections()
{
    const std::size_t count = Read16(fileHeader + 2);
    std::size_t header = optionalHeader + Read16(fileHeader + 16);
    for (std::size_t index = 0; index < count; ++index, header += SectionHeaderSize)
    {
        Section section{.Name = {},
            .VirtualAddress = Read32(header + 12),
            .VirtualSize = Read32(header + 8),
            .FileOffset = Read32(header + 20),
            .FileSize = Read32(header + 16),
            .Characteristics = Read32(header + 36),
            .HeaderOffset = header};
        for (std::size_t position = 0; position < 8 && file[header + position] != 0; ++position)
        {
            section.Name.push_back(static_cast<char>(file[header + position]));
        }
        sections.push_back(std::move(section));
    }
}

std::uint64_t Image::ReadBytes(std::size_t offset, std::size_t count) const
{
    if (offset > file.size() || file.size() - offset < count)
    {
        throw Malformed("the file ends before offset " + std::to_string(offset + count));
    }
    std::uint64_t value = 0;
    for (std::size_t index = count; index > 0; --index)
    {
        value = value << 8 | file[offset + index - 1];
    }
    return value;
}

std::string Image::ReadText(std::size_t offset) const
{
    const auto start = file.begin() + static_cast<std::ptrdiff_t>(std::min(offset, file.size()));
    const auto end = std::find(start, file.end(), 0);
    if (end == file.end())
    {
        throw Malformed("a name is not terminated");
    }
    return std::string(start, end);
}

std::size_t Image::FileOffset(std::uint32_t virtualAddress) const
{
    for (const Section& section : sections)
    {
        if (virtualAddress >= section.VirtualAddress && virtualAddress - section.VirtualAddress < section.FileSize)
        {
            return section.FileOffset + (virtualAddress - section.VirtualAddress);
        }
    }
    throw Malformed("no section holds the address " + std::to_string(virtualAddress));
}

Image::DirectoryEntry Image::Directory(std::size_t index) const
{
    const std::size_t count = Read32(optionalHeader + 108);
    if (index >= count)
    {
        return {0, 0};
    }
    const std::size_t entry = optionalHeader + 112 + index * 8;
    return {Read32(entry), Read32(entry + 4)};
}

std::uint32_t Image::ComputeChecksum() const
{
    std::uint32_t sum = 0;
    for (std::size_t offset = 0; offset < file.size(); offset += 2)
    {
        if (offset == ChecksumOffset() || offset == ChecksumOffset() + 2)
        {
            continue;
        }
        sum += static_cast<std::uint32_t>(ReadBytes(offset, std::min<std::size_t>(2, file.size() - offset)));
        sum = (sum & 0xffff) + (sum >> 16);
    }
    return sum + static_cast<std::uint32_t>(file.size());
}

std::vector<Import> Image::Imports() const
{
    std::vector<Import> imports;
    const DirectoryEntry directory = Directory(ImportDirectory);
    if (directory.VirtualAddress == 0)
    {
        return imports;
    }
    for (std::size_t descriptor = FileOffset(directory.VirtualAddress); Read32(descriptor + 12) != 0;
        descriptor += ImportDescriptorSize)
    {
        // The lookup table keeps the names; the address table, which the loader overwrites, starts as its copy.
        const std::uint32_t lookupTable = Read32(descriptor) != 0 ? Read32(descriptor) : Read32(descriptor + 16);
        ReadModuleImports(ReadText(FileOffset(Read32(descriptor + 12))), lookupTable, imports);
    }
    return imports;
}

std::size_t Image::UnwindTableOffset() const
{
    return FileOffset(Directory(ExceptionDirectory).VirtualAddress);
}

std::vector<UnwindRange> Image::UnwindRanges() const
{
    constexpr std::uint32_t entrySize = 12;
    std::vector<UnwindRange> ranges;
    const DirectoryEntry directory = Directory(ExceptionDirectory);
    for (std::uint32_t position = 0; position + entrySize <= directory.Size; position += entrySize)
    {
        const std::size_t entry = FileOffset(directory.VirtualAddress + position);
        ranges.push_back({Read32(entry), Read32(entry + 4)});
    }
    return ranges;
}

void Image::ReadModuleImports(const std::string& module, std::uint32_t lookupTable, std::vector<Import>& imports) const
{
    for (std::size_t entry = FileOffset(lookupTable);; entry += 8)
    {
        const std::uint64_t value = ReadBytes(entry, 8);
        if (value == 0)
        {
            return;
        }
        const bool byOrdinal = (value >> 63) != 0;
        imports.push_back({module, byOrdinal ? "#" + std::to_string(value & 0xffff)
                                             : ReadText(FileOffset(static_cast<std::uint32_t>(value)) + 2)});
    }
}

std::string Image::PdbName() const
{
    const DirectoryEntry directory = Directory(DebugDirectory);
    for (std::uint32_t position = 0; position + DebugEntrySize <= directory.Size; position += DebugEntrySize)
    {
        const std::size_t entry = FileOffset(directory.VirtualAddress + position);
        const std::size_t record = Read32(entry + 24);
        if (Read32(entry + 12) == DebugTypeCodeView && Read32(record) == CodeViewSignature)
        {
            return ReadText(record + CodeViewNameOffset);
        }
    }
    return {};
}

}
