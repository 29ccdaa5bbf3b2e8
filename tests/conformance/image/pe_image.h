// Reads a 64-bit PE image file: the header fields, sections, imports and debug record that decide whether Windows
// loads a driver. Nothing is mapped or relocated.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

namespace pe
{

// The file is not an image that can be read; the text says where reading ended.
class Malformed : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

inline constexpr std::uint16_t MachineAmd64 = 0x8664;
inline constexpr std::uint16_t SubsystemNative = 1;

inline constexpr std::uint16_t FileRelocationsStripped = 0x0001;

inline constexpr std::uint16_t DllDynamicBase = 0x0040;
inline constexpr std::uint16_t DllForceIntegrity = 0x0080;
inline constexpr std::uint16_t DllNxCompat = 0x0100;

inline constexpr std::uint32_t SectionExecute = 0x20000000;
inline constexpr std::uint32_t SectionWrite = 0x80000000;

struct Section
{
    std::string Name;
    std::uint32_t VirtualAddress;
    std::uint32_t VirtualSize;
    std::uint32_t FileOffset;
    std::uint32_t FileSize;
    std::uint32_t Characteristics;
    std::size_t HeaderOffset; // of this section's header in the file
};

struct Import
{
    std::string Module;
    std::string Routine; // "#N" for an import by ordinal
};

// A stretch of code that the unwinder knows: addresses relative to the image.
struct UnwindRange
{
    std::uint32_t Begin;
    std::uint32_t End;
};

class Image
{
public:
    // Takes the whole file. Throws Malformed.
    explicit Image(std::vector<std::uint8_t> file);

    // Where the fields stand in the file, for whoever wants to change one.
    std::size_t ChecksumOffset() const { return optionalHeader + 64; }
    std::size_t SubsystemOffset() const { return optionalHeader + 68; }
    std::size_t DllCharacteristicsOffset() const { return optionalHeader + 70; }
    std::size_t MachineOffset() const { return fileHeader; }
    std::size_t FileCharacteristicsOffset() const { return fileHeader + 18; }

    std::size_t SectionAlignmentOffset() const { return optionalHeader + 32; }
    std::size_t DirectoryOffset(std::size_t index) const { return optionalHeader + 112 + index * 8; }

    std::uint16_t Machine() const { return Read16(MachineOffset()); }
    std::uint16_t FileCharacteristics() const { return Read16(FileCharacteristicsOffset()); }
    std::uint32_t EntryPoint() const { return Read32(optionalHeader + 16); }
    std::uint16_t Subsystem() const { return Read16(SubsystemOffset()); }
    std::uint16_t DllCharacteristics() const { return Read16(DllCharacteristicsOffset()); }
    std::uint32_t Checksum() const { return Read32(ChecksumOffset()); }

    // The checksum that the file ought to carry: the folded sum of its 16-bit words without the field, plus its size.
    std::uint32_t ComputeChecksum() const;

    const std::vector<Section>& Sections() const { return sections; }
    std::vector<Import> Imports() const;
    // In the order of the table.
    std::vector<UnwindRange> UnwindRanges() const;

    // The name by which the debug record refers to the PDB, empty without such a record.
    std::string PdbName() const;

    // Where the byte at a virtual address (relative to the image) stands in the file. Throws Malformed if nowhere.
    std::size_t FileOffset(std::uint32_t virtualAddress) const;

    // Where the unwind table stands in the file.
    std::size_t UnwindTableOffset() const;

    std::span<const std::uint8_t> File() const { return file; }

    struct DirectoryEntry
    {
        std::uint32_t VirtualAddress;
        std::uint32_t Size;
    };

    // Both 0 for a directory that the image does not have.
    DirectoryEntry Directory(std::size_t index) const;

    // Little-endian integers at an offset in the file. Throw Malformed beyond its end.
    std::uint64_t ReadBytes(std::size_t offset, std::size_t count) const;
    std::uint16_t Read16(std::size_t offset) const { return static_cast<std::uint16_t>(ReadBytes(offset, 2)); }
    std::uint32_t Read32(std::size_t offset) const { return static_cast<std::uint32_t>(ReadBytes(offset, 4)); }

private:
    std::string ReadText(std::size_t offset) const;
    void ReadSections();
    void ReadModuleImports(const std::string& module, std::uint32_t lookupTable, std::vector<Import>& imports) const;

    std::vector<std::uint8_t> file;
    std::size_t fileHeader = 0;
    std::size_t optionalHeader = 0;
    std::vector<Section> sections;
};

}
