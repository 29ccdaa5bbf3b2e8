// The image that is built is the image that ships: these tests read the file itself. Each rule is also shown to notice
// an image that breaks it, on a copy with that one thing changed.

#include "image_rules.h"
#include "windows7_exports.h"

#include "hosted/ldr/export_list.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <set>

namespace
{

using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

using Bytes = std::vector<std::uint8_t>;

class ImageTest : public testing::Test
{
protected:
    void SetUp() override
    {
        std::ifstream stream(TARNVEIL_IMAGE, std::ios::binary);
        ASSERT_TRUE(stream) << "the driver image " TARNVEIL_IMAGE " is missing";
        file.assign(std::istreambuf_iterator<char>(stream), {});
    }

    void Write16(std::size_t offset, unsigned value)
    {
        file.at(offset) = static_cast<std::uint8_t>(value);
        file.at(offset + 1) = static_cast<std::uint8_t>(value >> 8);
    }

    void Write32(std::size_t offset, std::uint32_t value)
    {
        Write16(offset, value & 0xffff);
        Write16(offset + 2, value >> 16);
    }

    void ClearDllFlag(std::uint16_t flag)
    {
        const pe::Image image(file);
        Write16(image.DllCharacteristicsOffset(), image.DllCharacteristics() & ~flag);
    }

    // What is wrong with the changed file, once it carries the checksum that belongs to it.
    std::vector<std::string> FindingsWithFreshChecksum()
    {
        const pe::Image image(file);
        Write32(image.ChecksumOffset(), image.ComputeChecksum());
        return FindBrokenRules(pe::Image(file));
    }

    // Replaces a terminated text that stands once in the file by another that is no longer.
    void ReplaceText(const std::string& from, const std::string& to)
    {
        ASSERT_LE(to.size(), from.size());
        const std::string pattern(from.c_str(), from.size() + 1);
        const auto place = std::search(file.begin(), file.end(), pattern.begin(), pattern.end());
        ASSERT_NE(place, file.end()) << from;
        std::fill_n(std::copy(to.begin(), to.end(), place), from.size() - to.size(), std::uint8_t{0});
    }

    Bytes file;
};

TEST_F(ImageTest, MayShip)
{
    EXPECT_THAT(FindBrokenRules(pe::Image(file)), IsEmpty());
}

TEST_F(ImageTest, ImportsFromKernelAndFilterManagerOnly)
{
    std::set<std::string> modules;
    for (const pe::Import& import : pe::Image(file).Imports())
    {
        modules.insert(import.Module);
    }
    EXPECT_THAT(modules, ElementsAre("FLTMGR.SYS", "ntoskrnl.exe"));
}

struct HostedExport
{
    std::string Name; // "module!routine"
    bool ByCompiler;  // calls are the compiler's own idea, so an image may be without
};

// What the loader of the hosted kernel can bind.
std::vector<HostedExport> HostedExports()
{
    constexpr const char* Ntoskrnl = "ntoskrnl.exe!";
    constexpr const char* FilterManager = "FLTMGR.SYS!";
#define NAMED(Module, Name) {std::string(Module) + #Name, false},
#define NAMED_AS(Module, Name, Here) NAMED(Module, Name)
#define BY_COMPILER(Module, Name) {std::string(Module) + #Name, true},
    return {HOSTED_EXPORTS(NAMED, NAMED_AS, NAMED, BY_COMPILER)};
#undef BY_COMPILER
#undef NAMED_AS
#undef NAMED
}

// One line per import that the hosted kernel cannot bind, and per export that the driver does not import. The list is
// to say what the driver rests on, so it holds nothing more; routines that are looked up by name at run time stand
// elsewhere.
std::vector<std::string> CompareWithHostedExports(const std::vector<pe::Import>& imports)
{
    std::set<std::string> imported;
    for (const pe::Import& import : imports)
    {
        imported.insert(import.Module + "!" + import.Routine);
    }
    std::vector<std::string> differences;
    std::set<std::string> exported;
    for (const auto& [name, byCompiler] : HostedExports())
    {
        if (!exported.insert(name).second)
        {
            differences.push_back(name + " is exported twice");
        }
        if (!imported.contains(name) && !byCompiler)
        {
            differences.push_back(name + " is exported and not imported");
        }
    }
    for (const std::string& name : imported)
    {
        if (!exported.contains(name))
        {
            differences.push_back(name + " is imported and not exported");
        }
    }
    return differences;
}

TEST_F(ImageTest, ImportsExactlyWhatTheHostedKernelExports)
{
    EXPECT_THAT(CompareWithHostedExports(pe::Image(file).Imports()), IsEmpty());
}

TEST(HostedExports, NoticesWhatIsMissingAndWhatIsTooMuch)
{
    std::vector<pe::Import> imports;
    for (const auto& [name, byCompiler] : HostedExports())
    {
        const size_t end = name.find('!');
        imports.push_back({name.substr(0, end), name.substr(end + 1)});
    }
    EXPECT_THAT(CompareWithHostedExports(imports), IsEmpty());
    std::erase_if(imports, [](const pe::Import& import) { return import.Routine == "memmove"; });
    EXPECT_THAT(CompareWithHostedExports(imports), IsEmpty());
    imports.front().Routine = "ExFreePool2";
    EXPECT_THAT(CompareWithHostedExports(imports), ElementsAre("ntoskrnl.exe!DbgPrint is exported and not imported",
                                                       "ntoskrnl.exe!ExFreePool2 is imported and not exported"));
}

TEST(HostedExports, AreAllExportedByWindows7)
{
    for (const HostedExport& exported : HostedExports())
    {
        EXPECT_TRUE(std::ranges::any_of(Windows7Exports, [&exported](const Export& entry)
            { return std::string(entry.Module) + "!" + entry.Routine == exported.Name; }))
            << exported.Name;
    }
}

TEST_F(ImageTest, NoticesAnotherMachine)
{
    Write16(pe::Image(file).MachineOffset(), 0xaa64);
    EXPECT_THAT(FindingsWithFreshChecksum(), ElementsAre("machine: not x64"));
}

TEST_F(ImageTest, NoticesAFunctionThatCannotBeUnwound)
{
    // All entries lose their ranges.
    const pe::Image image(file);
    const auto ranges = image.UnwindRanges();
    ASSERT_GT(ranges.size(), 100u);
    for (size_t i = 0; i < ranges.size(); ++i)
    {
        Write32(image.UnwindTableOffset() + i * 12 + 4, ranges[i].Begin);
    }
    const auto findings = FindingsWithFreshChecksum();
    EXPECT_GT(findings.size(), 10u);
    EXPECT_THAT(findings, testing::Each(StartsWith("unwinding: no entry for the function at ")));
}

TEST_F(ImageTest, NoticesAnotherSubsystem)
{
    Write16(pe::Image(file).SubsystemOffset(), 3);
    EXPECT_THAT(FindingsWithFreshChecksum(), ElementsAre("subsystem: not native"));
}

TEST_F(ImageTest, NoticesAChangedByteByTheChecksum)
{
    const pe::Image image(file);
    file.at(image.Sections().front().FileOffset) ^= 1;
    EXPECT_THAT(FindBrokenRules(pe::Image(file)), ElementsAre("checksum: does not match the file"));
}

TEST_F(ImageTest, NoticesAMissingChecksum)
{
    Write32(pe::Image(file).ChecksumOffset(), 0);
    EXPECT_THAT(FindBrokenRules(pe::Image(file)), ElementsAre("checksum: does not match the file"));
}

TEST_F(ImageTest, NoticesMissingForceIntegrity)
{
    ClearDllFlag(pe::DllForceIntegrity);
    EXPECT_THAT(FindingsWithFreshChecksum(), ElementsAre("integrity: FORCE_INTEGRITY is not set"));
}

TEST_F(ImageTest, NoticesMissingNxCompat)
{
    ClearDllFlag(pe::DllNxCompat);
    EXPECT_THAT(FindingsWithFreshChecksum(), ElementsAre("nx: NX_COMPAT is not set"));
}

TEST_F(ImageTest, NoticesMissingDynamicBase)
{
    ClearDllFlag(pe::DllDynamicBase);
    EXPECT_THAT(FindingsWithFreshChecksum(), ElementsAre("base: DYNAMIC_BASE is not set"));
}

TEST_F(ImageTest, NoticesStrippedRelocations)
{
    const pe::Image image(file);
    Write16(image.FileCharacteristicsOffset(), image.FileCharacteristics() | pe::FileRelocationsStripped);
    EXPECT_THAT(FindingsWithFreshChecksum(), ElementsAre("relocations: stripped"));
}

TEST_F(ImageTest, NoticesAWritableCodeSection)
{
    const pe::Image image(file);
    const auto code = std::ranges::find_if(image.Sections(),
        [](const pe::Section& section) { return (section.Characteristics & pe::SectionExecute) != 0; });
    ASSERT_NE(code, image.Sections().end());
    Write32(code->HeaderOffset + 36, code->Characteristics | pe::SectionWrite);
    EXPECT_THAT(FindingsWithFreshChecksum(), ElementsAre("sections: " + code->Name + " is writable and executable"));
}

TEST_F(ImageTest, NoticesACodeSectionThatCannotExecute)
{
    const pe::Image image(file);
    for (const pe::Section& section : image.Sections())
    {
        Write32(section.HeaderOffset + 36, section.Characteristics & ~pe::SectionExecute);
    }
    EXPECT_THAT(FindingsWithFreshChecksum(), ElementsAre("entry: not in an executable section"));
}

TEST_F(ImageTest, NoticesAModuleThatItMayNotImport)
{
    ReplaceText("FLTMGR.SYS", "HAL.DLL");
    const auto findings = FindingsWithFreshChecksum();
    EXPECT_FALSE(findings.empty());
    EXPECT_THAT(findings, testing::Each(StartsWith("imports: HAL.DLL of Windows 7 is not known to export Flt")));
}

TEST_F(ImageTest, NoticesARoutineThatWindows7DoesNotExport)
{
    ReplaceText("ExFreePoolWithTag", "ExFreePool2");
    EXPECT_THAT(FindingsWithFreshChecksum(),
        ElementsAre("imports: ntoskrnl.exe of Windows 7 is not known to export ExFreePool2"));
}

TEST_F(ImageTest, NoticesAPdbNameWithAPath)
{
    ReplaceText("Tarnveil.pdb", "b\\arnv.pdb");
    EXPECT_THAT(FindingsWithFreshChecksum(), ElementsAre("debug: the PDB name is \"b\\arnv.pdb\""));
}

TEST_F(ImageTest, ReadsNoTruncatedFile)
{
    const std::size_t headers = pe::Image(file).Sections().front().HeaderOffset;
    for (const std::size_t size : {std::size_t{0}, std::size_t{1}, std::size_t{0x3f}, headers - 1, headers + 20})
    {
        EXPECT_THROW(pe::Image(Bytes(file.begin(), file.begin() + static_cast<std::ptrdiff_t>(size))), pe::Malformed)
            << size;
    }
}

TEST(Windows7Exports, HoldsNothingNewerAndNothingTwice)
{
    std::set<std::string> names;
    for (const Export& entry : Windows7Exports)
    {
        EXPECT_LE(entry.Since, Windows7Version) << entry.Routine;
        EXPECT_TRUE(names.insert(entry.Routine).second) << entry.Routine;
    }
}

}
