// What is refused of a driver image, and why it is said to be; what relocation and import tables give.

#include "hosted/ldr/pe_file.h"

#include <cstring>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace hosted
{
namespace
{
using testing::HasSubstr;

// A small image made by hand: headers, one section of code, one of data that holds an import and a relocation table.
class HandMade : public testing::Test
{
protected:
    static constexpr std::uint32_t Pe = 0x80;
    static constexpr std::uint32_t Optional = Pe + 24;
    static constexpr std::uint32_t Sections = Optional + 240;
    static constexpr std::uint32_t DataOffset = 0x600; // in the file; 0x2000 in memory
    static constexpr std::uint32_t Data = 0x2000;

    void SetUp() override
    {
        bytes_.assign(0xa00, '\0');
        Put<std::uint16_t>(0, 0x5a4d);
        Put<std::uint32_t>(0x3c, Pe);
        Put<std::uint32_t>(Pe, 0x4550);
        Put<std::uint16_t>(Pe + 4, 0x8664);
        Put<std::uint16_t>(Pe + 6, 2);
        Put<std::uint16_t>(Pe + 20, 240);
        Put<std::uint16_t>(Optional, 0x20b);
        Put<std::uint32_t>(Optional + 16, 0x1000);
        Put<std::uint64_t>(Optional + 24, Base);
        Put<std::uint32_t>(Optional + 56, 0x3000);
        Put<std::uint32_t>(Optional + 60, 0x400);
        Put<std::uint16_t>(Optional + 68, 1);
        Put<std::uint32_t>(Optional + 108, 16);
        Directory(1, Data, 40);
        Directory(5, Data + 0x200, 12);
        Section(0, ".text", 0x1000, 0x100, 0x400, 0x200, 0x60000020);
        Section(1, ".data", Data, 0x400, DataOffset, 0x400, 0xc0000040);
        // One import: DbgPrint of ntoskrnl.exe, with its slot at Data + 0x80.
        Put<std::uint32_t>(DataOffset, Data + 0x60);
        Put<std::uint32_t>(DataOffset + 12, Data + 0x100);
        Put<std::uint32_t>(DataOffset + 16, Data + 0x80);
        Put<std::uint64_t>(DataOffset + 0x60, Data + 0x120);
        Put<std::uint64_t>(DataOffset + 0x80, Data + 0x120);
        Text(DataOffset + 0x100, "ntoskrnl.exe");
        Text(DataOffset + 0x122, "DbgPrint");
        // One relocation, of the quadword at Data + 0x300.
        Put<std::uint32_t>(DataOffset + 0x200, Data);
        Put<std::uint32_t>(DataOffset + 0x204, 12);
        Put<std::uint16_t>(DataOffset + 0x208, 0xa300);
        Put<std::uint64_t>(DataOffset + 0x300, Base + 0x1234);
    }

    template <class T>
    void Put(size_t offset, T value)
    {
        std::memcpy(&bytes_.at(offset), &value, sizeof(value));
    }
    void Text(size_t offset, const char* text) { std::strcpy(&bytes_.at(offset), text); }
    void Directory(std::uint32_t index, std::uint32_t address, std::uint32_t size)
    {
        Put<std::uint32_t>(Optional + 112 + index * 8, address);
        Put<std::uint32_t>(Optional + 116 + index * 8, size);
    }
    void Section(std::uint32_t index, const char* name, std::uint32_t address, std::uint32_t size, std::uint32_t offset,
        std::uint32_t fileSize, std::uint32_t flags)
    {
        const std::uint32_t header = Sections + index * 40;
        Text(header, name);
        Put<std::uint32_t>(header + 8, size);
        Put<std::uint32_t>(header + 12, address);
        Put<std::uint32_t>(header + 16, fileSize);
        Put<std::uint32_t>(header + 20, offset);
        Put<std::uint32_t>(header + 36, flags);
    }

    // Everything that a loader does with the file; the reason when it is refused, else "".
    std::string Refusal() const
    {
        try
        {
            const ImageLayout layout = ReadImageLayout(bytes_);
            auto memory = MapImage(bytes_, layout);
            RelocateImage(memory, layout, 0x7fff00000000);
            ReadImports(memory, layout);
            return {};
        }
        catch (const BadImage& reason)
        {
            return reason.what();
        }
    }

    static constexpr std::uint64_t Base = 0x140000000;
    std::string bytes_;
};

TEST_F(HandMade, IsRead)
{
    const ImageLayout layout = ReadImageLayout(bytes_);
    EXPECT_EQ(layout.PreferredBase, Base);
    EXPECT_EQ(layout.Size, 0x3000u);
    EXPECT_EQ(layout.Entry, 0x1000u);
    ASSERT_EQ(layout.Sections.size(), 2u);
    EXPECT_EQ(layout.Sections[0].Name, ".text");
    EXPECT_TRUE(layout.Sections[0].Executable);
    EXPECT_FALSE(layout.Sections[0].Writable);
    EXPECT_TRUE(layout.Sections[1].Writable);
    EXPECT_EQ(Refusal(), "");
}

TEST_F(HandMade, IsRelocatedByTheDistance)
{
    const ImageLayout layout = ReadImageLayout(bytes_);
    auto memory = MapImage(bytes_, layout);
    RelocateImage(memory, layout, Base + 0x10000);
    std::uint64_t value;
    std::memcpy(&value, &memory[Data + 0x300], sizeof(value));
    EXPECT_EQ(value, Base + 0x11234);
}

TEST_F(HandMade, NamesItsImports)
{
    const ImageLayout layout = ReadImageLayout(bytes_);
    const auto imports = ReadImports(MapImage(bytes_, layout), layout);
    ASSERT_EQ(imports.size(), 1u);
    EXPECT_EQ(imports[0].Module, "ntoskrnl.exe");
    EXPECT_EQ(imports[0].Name, "DbgPrint");
    EXPECT_EQ(imports[0].Slot, Data + 0x80);
}

TEST_F(HandMade, IsRefusedAtEveryLengthThatCutsItOff)
{
    const std::string whole = bytes_;
    for (size_t length = 0; length < whole.size(); ++length)
    {
        bytes_ = whole.substr(0, length);
        EXPECT_NE(Refusal(), "") << length << " bytes";
    }
}

TEST_F(HandMade, SurvivesAnyChangedByteOfItsHeadersAndTables)
{
    const std::string whole = bytes_;
    size_t accepted = 0;
    size_t refused = 0;
    for (size_t offset = 0; offset < whole.size(); ++offset)
    {
        for (const int value : {0x00, 0x01, 0x7f, 0x80, 0xff})
        {
            bytes_ = whole;
            bytes_[offset] = static_cast<char>(value);
            ++(Refusal().empty() ? accepted : refused);
        }
    }
    EXPECT_GT(accepted, 0u);
    EXPECT_GT(refused, 0u);
}

struct Damage
{
    const char* Name;
    size_t Offset;
    std::uint64_t Value;
    size_t Bytes;
    const char* Reason;
};

class Damaged : public HandMade, public testing::WithParamInterface<Damage>
{
public:
    static constexpr std::uint32_t PeOffset = Pe, OptionalOffset = Optional, SectionsOffset = Sections,
                                   FileOfData = DataOffset;
};

TEST_P(Damaged, IsRefusedWithTheReason)
{
    const Damage& damage = GetParam();
    std::memcpy(&bytes_.at(damage.Offset), &damage.Value, damage.Bytes);
    EXPECT_THAT(Refusal(), HasSubstr(damage.Reason));
}

INSTANTIATE_TEST_SUITE_P(Images, Damaged,
    testing::Values(Damage{"Signature", 0, 0x4141, 2, "not an image: it does not begin with MZ"},
        Damage{"PeSignature", Damaged::PeOffset, 0, 4, "not an image: it has no PE header"},
        Damage{"PeOffset", 0x3c, 0xfffffff0, 4, "the image is cut off in its headers"},
        Damage{"Machine", Damaged::PeOffset + 4, 0xaa64, 2, "another machine (0xaa64)"},
        Damage{"Magic", Damaged::OptionalOffset, 0x10b, 2, "without a 64-bit optional header"},
        Damage{"Subsystem", Damaged::OptionalOffset + 68, 3, 2, "no driver: its subsystem is not native"},
        Damage{"Size", Damaged::OptionalOffset + 56, 0x7fffffff, 4, "an image of 2147483647 bytes"},
        Damage{"Entry", Damaged::OptionalOffset + 16, 0x3000, 4, "with its entry at 0x3000"},
        Damage{"Directory", Damaged::OptionalOffset + 120, 0x2ff0, 4, "table 1 lies outside the image"},
        Damage{"SectionAddress", Damaged::SectionsOffset + 12, 0x5000, 4, "section .text lies outside"},
        Damage{"SectionOffset", Damaged::SectionsOffset + 20, 0x5000, 4, "cut off in its section .text"},
        Damage{"SectionFlags", Damaged::SectionsOffset + 36, 0xe0000020, 4, "both writable and executable"},
        Damage{"RelocationBlock", Damaged::FileOfData + 0x204, 4, 4, "a block of 4 bytes in the relocations"},
        Damage{"RelocationPlace", Damaged::FileOfData + 0x200, 0x9000, 4, "a relocation at 0x9300, outside"},
        Damage{"RelocationKind", Damaged::FileOfData + 0x208, 0x3300, 2, "a relocation of kind 3"},
        Damage{"ImportName", Damaged::FileOfData + 0x60, 0x7ffffff0, 8, "cut off in its imports"},
        Damage{"ImportByNumber", Damaged::FileOfData + 0x60, 0x8000000000000005, 8, "by number"}),
    [](const auto& info) { return std::string(info.param.Name); });
}
}
