// The image that ships keeps the rules of memory integrity, and each rule notices a copy that breaks it.
#include "built_files.h"

#include "tests/conformance/package/rules/memory_integrity.h"

#include <gmock/gmock.h>

#include <algorithm>

namespace package
{

namespace
{

using testing::ElementsAre;
using testing::IsEmpty;

constexpr std::size_t ImportDirectory = 1;
constexpr std::size_t ImportAddressDirectory = 12;
constexpr std::uint32_t SectionDiscardable = 0x02000000;

class MemoryIntegrity : public testing::Test
{
protected:
    void SetUp() override { file = ReadBytes(TARNVEIL_IMAGE); }

    pe::Section Named(const std::string& name) const
    {
        const pe::Image image(file);
        for (const pe::Section& section : image.Sections())
        {
            if (section.Name == name)
            {
                return section;
            }
        }
        ADD_FAILURE() << "no section " << name;
        return {};
    }

    void AddFlags(const pe::Section& section, std::uint32_t flags)
    {
        Write32(file, section.HeaderOffset + 36, section.Characteristics | flags);
    }

    Findings Risks() const { return FindMemoryIntegrityRisks(pe::Image(file)); }

    std::vector<std::uint8_t> file;
};

TEST_F(MemoryIntegrity, HoldsOfTheImageThatShips)
{
    EXPECT_THAT(Risks(), IsEmpty());
}

TEST_F(MemoryIntegrity, NoticesCodeThatCanBeWritten)
{
    AddFlags(Named(".text"), pe::SectionWrite);
    EXPECT_THAT(Risks(), ElementsAre("writable code: section .text"));
}

TEST_F(MemoryIntegrity, NoticesDataThatCanBeExecuted)
{
    AddFlags(Named(".data"), pe::SectionExecute);
    EXPECT_THAT(Risks(), ElementsAre("writable code: section .data"));
}

// A section for the start only, which is freed later, is no excuse.
TEST_F(MemoryIntegrity, NoticesWritableCodeThatIsDiscarded)
{
    AddFlags(Named(".reloc"), SectionDiscardable | pe::SectionExecute | pe::SectionWrite);
    EXPECT_THAT(Risks(), ElementsAre("writable code: section .reloc"));
}

TEST_F(MemoryIntegrity, NoticesSectionsThatShareAPage)
{
    Write32(file, pe::Image(file).SectionAlignmentOffset(), 0x200);
    EXPECT_THAT(Risks(), ElementsAre("alignment: sections are aligned to less than a page"));
    Write32(file, pe::Image(file).SectionAlignmentOffset(), 0);
    EXPECT_THAT(Risks(), ElementsAre("alignment: sections are aligned to less than a page"));
}

TEST_F(MemoryIntegrity, NoticesASectionInTheMiddleOfAPage)
{
    const pe::Section last = Named(".reloc");
    Write32(file, last.HeaderOffset + 12, last.VirtualAddress + 0x200);
    EXPECT_THAT(Risks(), ElementsAre("alignment: section .reloc does not begin at a page"));
}

TEST_F(MemoryIntegrity, NoticesASectionOverAnother)
{
    const pe::Section last = Named(".reloc");
    Write32(file, last.HeaderOffset + 12, Named(".text").VirtualAddress);
    EXPECT_THAT(Risks(), ElementsAre("alignment: section .reloc overlaps another"));
}

TEST_F(MemoryIntegrity, NoticesAnAddressTableAmongCode)
{
    Write32(file, pe::Image(file).DirectoryOffset(ImportAddressDirectory), Named(".text").VirtualAddress);
    EXPECT_THAT(Risks(), ElementsAre("imports: the address table is in the code section .text"));
}

TEST_F(MemoryIntegrity, NoticesAnAddressTableThatIsNotTold)
{
    Write32(file, pe::Image(file).DirectoryOffset(ImportAddressDirectory), 0);
    EXPECT_THAT(Risks(), ElementsAre("imports: the image does not tell where its address table is"));
}

TEST_F(MemoryIntegrity, NoticesTheTableOfOneModuleAmongCode)
{
    const pe::Image image(file);
    const std::size_t descriptor = image.FileOffset(image.Directory(ImportDirectory).VirtualAddress);
    Write32(file, descriptor + 16, Named(".text").VirtualAddress);
    EXPECT_THAT(Risks(), ElementsAre("imports: the table of one module is in the code section .text"));
}

TEST_F(MemoryIntegrity, NoticesAnAllocatorThatKnowsOnlyExecutableMemory)
{
    const std::string text = ReplacedFirst(std::string(file.begin(), file.end()),
        std::string("ExAllocatePoolWithTag\0", 22), std::string("ExAllocatePool\0\0\0\0\0\0\0\0", 22));
    file.assign(text.begin(), text.end());
    EXPECT_THAT(Risks(), ElementsAre("pool: ExAllocatePool may give executable memory"));
}

TEST(ExecutableMemory, IsNotTakenByAnySourceOfTheDriver)
{
    const std::filesystem::path driver = std::filesystem::path(TARNVEIL_SOURCES) / "driver";
    int allocating = 0;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(driver))
    {
        const std::string extension = entry.path().extension();
        if (extension == ".cpp" || extension == ".h")
        {
            const std::string source = ReadText(entry.path());
            EXPECT_THAT(FindExecutableMemory(entry.path().lexically_relative(driver).string(), source), IsEmpty());
            allocating += source.find("DefaultPoolType") != std::string::npos ? 1 : 0;
        }
    }
    EXPECT_GT(allocating, 2) << "the search did not see the files that allocate";
}

TEST(ExecutableMemory, IsNoticedInEachForm)
{
    const auto in = [](const char* source) { return FindExecutableMemory("filter/x.cpp", source); };
    EXPECT_THAT(in("POOL_TYPE type = NonPagedPool;"), ElementsAre("pool: filter/x.cpp names NonPagedPool"));
    EXPECT_THAT(
        in("POOL_TYPE type = NonPagedPoolExecute;"), ElementsAre("pool: filter/x.cpp names NonPagedPoolExecute"));
    EXPECT_THAT(in("POOL_TYPE type = PagedPool;"), ElementsAre("pool: filter/x.cpp names PagedPool"));
    EXPECT_THAT(in("p = ExAllocatePoolWithTag(DefaultPoolType, 1, 'x');"),
        ElementsAre("pool: filter/x.cpp calls ExAllocatePoolWithTag"));
    EXPECT_THAT(in("p = ExAllocatePool(type, 1);"), ElementsAre("pool: filter/x.cpp calls ExAllocatePool"));
    EXPECT_THAT(in("FltAllocateContext(filter, KIND, Size(1), type, &c); // DefaultPoolType"),
        ElementsAre("pool: filter/x.cpp calls FltAllocateContext without DefaultPoolType"));
    EXPECT_THAT(in("FltAllocatePoolAlignedWithTag(i, type, 1, 't'); Use(DefaultPoolType);"),
        ElementsAre("pool: filter/x.cpp calls FltAllocatePoolAlignedWithTag without DefaultPoolType"));
    EXPECT_THAT(in("MmMapLockedPagesSpecifyCache(mdl, KernelMode, MmCached, nullptr, FALSE, NormalPagePriority);"),
        ElementsAre("pool: filter/x.cpp maps memory without MdlMappingNoExecute"));
}

TEST(ExecutableMemory, IsNotSeenInTextsCommentsAndTheFileThatChooses)
{
    const auto in = [](const char* name, const char* source) { return FindExecutableMemory(name, source); };
    EXPECT_THAT(in("filter/x.cpp", "/* PagedPool */ f(\"NonPagedPool \\\" PagedPool\"); // NonPagedPool"), IsEmpty());
    EXPECT_THAT(in("filter/x.cpp", "POOL_TYPE a = NonPagedPoolNx; // MyNonPagedPool"), IsEmpty());
    EXPECT_THAT(in("util/pool.cpp", "p = ExAllocatePoolWithTag(NonPagedPool, 1, 'x');"), IsEmpty());
    EXPECT_THAT(in("util/pool.cpp", "p = ExAllocatePool(NonPagedPool, 1);"),
        ElementsAre("pool: util/pool.cpp calls ExAllocatePool"));
}

}

}
