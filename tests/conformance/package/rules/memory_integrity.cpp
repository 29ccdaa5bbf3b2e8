#include "memory_integrity.h"

#include <algorithm>
#include <array>

namespace package
{

namespace
{

constexpr std::uint32_t PageSize = 0x1000;
constexpr std::size_t ImportDirectory = 1;
constexpr std::size_t ImportAddressDirectory = 12;
constexpr std::size_t ImportDescriptorSize = 20;

// Of the routines that give memory, those whose caller says that it shall not be executable, and the one that gives
// none of its own. All others are taken for executable, which the old ones are.
constexpr std::array AllowedAllocators = {
    "ExAllocatePoolWithTag", "FltAllocateContext", "FltAllocatePoolAlignedWithTag", "IoAllocateMdl"};

void CheckSections(const pe::Image& image, Findings& findings)
{
    const std::uint32_t alignment = image.Read32(image.SectionAlignmentOffset());
    Require(
        alignment != 0 && alignment % PageSize == 0, findings, "alignment: sections are aligned to less than a page");
    std::uint32_t end = 0;
    for (const pe::Section& section : image.Sections())
    {
        const bool executable = (section.Characteristics & pe::SectionExecute) != 0;
        const bool writable = (section.Characteristics & pe::SectionWrite) != 0;
        Require(!(executable && writable), findings, "writable code: section " + section.Name);
        Require(section.VirtualAddress % PageSize == 0, findings,
            "alignment: section " + section.Name + " does not begin at a page");
        Require(section.VirtualAddress >= end, findings, "alignment: section " + section.Name + " overlaps another");
        end = section.VirtualAddress + std::max(section.VirtualSize, section.FileSize);
    }
}

void RequireNoCode(const pe::Image& image, std::uint32_t address, const std::string& what, Findings& findings)
{
    for (const pe::Section& section : image.Sections())
    {
        const bool inside = address >= section.VirtualAddress &&
                            address - section.VirtualAddress < std::max(section.VirtualSize, section.FileSize);
        Require(!inside || (section.Characteristics & pe::SectionExecute) == 0, findings,
            "imports: " + what + " is in the code section " + section.Name);
    }
}

// The loader writes the addresses of the imports, so they must not stand where code is.
void CheckImportAddresses(const pe::Image& image, Findings& findings)
{
    const auto table = image.Directory(ImportAddressDirectory);
    Require(table.VirtualAddress != 0, findings, "imports: the image does not tell where its address table is");
    RequireNoCode(image, table.VirtualAddress, "the address table", findings);
    const auto directory = image.Directory(ImportDirectory);
    if (directory.VirtualAddress == 0)
    {
        return;
    }
    for (std::size_t descriptor = image.FileOffset(directory.VirtualAddress); image.Read32(descriptor + 12) != 0;
        descriptor += ImportDescriptorSize)
    {
        RequireNoCode(image, image.Read32(descriptor + 16), "the table of one module", findings);
    }
}

void CheckAllocators(const pe::Image& image, Findings& findings)
{
    for (const pe::Import& import : image.Imports())
    {
        const bool allocates = import.Routine.find("Allocate") != std::string::npos;
        const bool allowed = std::ranges::find(AllowedAllocators, import.Routine) != AllowedAllocators.end();
        Require(!allocates || allowed, findings, "pool: " + import.Routine + " may give executable memory");
    }
}

// The source with comments and literals blanked, so that only code is left. Offsets stay.
std::string CodeOnly(std::string_view source)
{
    std::string code(source);
    const auto blank = [&code](std::size_t from, std::size_t to)
    {
        std::fill(code.begin() + static_cast<std::ptrdiff_t>(from),
            code.begin() + static_cast<std::ptrdiff_t>(std::min(to, code.size())), ' ');
    };
    for (std::size_t at = 0; at < code.size();)
    {
        std::size_t end = at + 1;
        if (source.substr(at, 2) == "//")
        {
            end = std::min(source.find('\n', at), source.size());
            blank(at, end);
        }
        else if (source.substr(at, 2) == "/*")
        {
            end = source.find("*/", at + 2);
            end = end == std::string_view::npos ? source.size() : end + 2;
            blank(at, end);
        }
        else if (source[at] == '"')
        {
            while (end < source.size() && source[end] != '"')
            {
                end += source[end] == '\\' ? 2 : 1;
            }
            blank(at, ++end);
        }
        at = end;
    }
    return code;
}

bool IsWordSign(char sign)
{
    return std::isalnum(static_cast<unsigned char>(sign)) != 0 || sign == '_';
}

// Where a whole word stands next, at or behind `from`.
std::size_t FindWord(std::string_view code, std::string_view word, std::size_t from)
{
    for (std::size_t at = code.find(word, from); at != std::string_view::npos; at = code.find(word, at + 1))
    {
        const std::size_t end = at + word.size();
        if ((at == 0 || !IsWordSign(code[at - 1])) && (end == code.size() || !IsWordSign(code[end])))
        {
            return at;
        }
    }
    return std::string_view::npos;
}

// The arguments of the call whose name ends at `at`, with their parentheses.
std::string_view Arguments(std::string_view code, std::size_t at)
{
    int depth = 0;
    for (std::size_t end = at; end < code.size(); ++end)
    {
        depth += code[end] == '(' ? 1 : code[end] == ')' ? -1 : 0;
        if (depth == 0)
        {
            return code.substr(at, end + 1 - at);
        }
    }
    return code.substr(at);
}

}

Findings FindMemoryIntegrityRisks(const pe::Image& image)
{
    Findings findings;
    CheckSections(image, findings);
    CheckImportAddresses(image, findings);
    CheckAllocators(image, findings);
    return findings;
}

Findings FindExecutableMemory(const std::string& name, std::string_view source)
{
    // The one file that chooses by the system's version, and through which all plain allocations go.
    const bool choosesPool = name == "util/pool.cpp";
    const std::string code = CodeOnly(source);
    const auto has = [&code](std::string_view word) { return FindWord(code, word, 0) != std::string::npos; };

    Findings findings;
    for (const char* pool : {"NonPagedPool", "NonPagedPoolExecute", "PagedPool", "NonPagedPoolCacheAligned",
             "NonPagedPoolMustSucceed", "NonPagedPoolBase"})
    {
        Require(choosesPool || !has(pool), findings, "pool: " + name + " names " + pool);
    }
    Require(choosesPool || !has("ExAllocatePoolWithTag"), findings, "pool: " + name + " calls ExAllocatePoolWithTag");
    Require(!has("ExAllocatePool"), findings, "pool: " + name + " calls ExAllocatePool");
    for (const std::string_view routine : {"FltAllocateContext", "FltAllocatePoolAlignedWithTag"})
    {
        for (std::size_t at = FindWord(code, routine, 0); at != std::string::npos; at = FindWord(code, routine, at + 1))
        {
            Require(FindWord(Arguments(code, at + routine.size()), "DefaultPoolType", 0) != std::string_view::npos,
                findings, "pool: " + name + " calls " + std::string(routine) + " without DefaultPoolType");
        }
    }
    Require(!has("MmMapLockedPagesSpecifyCache") || has("MdlMappingNoExecute"), findings,
        "pool: " + name + " maps memory without MdlMappingNoExecute");
    return findings;
}

}
