#include "image_rules.h"
#include "windows7_exports.h"

#include <algorithm>
#include <strings.h>

namespace
{

using Findings = std::vector<std::string>;

void Require(bool holds, Findings& findings, std::string finding)
{
    if (!holds)
    {
        findings.push_back(std::move(finding));
    }
}

void CheckHeaders(const pe::Image& image, Findings& findings)
{
    Require(image.Machine() == pe::MachineAmd64, findings, "machine: not x64");
    Require(image.Subsystem() == pe::SubsystemNative, findings, "subsystem: not native");
    Require(image.Checksum() == image.ComputeChecksum(), findings, "checksum: does not match the file");

    const auto flags = image.DllCharacteristics();
    Require((flags & pe::DllForceIntegrity) != 0, findings, "integrity: FORCE_INTEGRITY is not set");
    Require((flags & pe::DllNxCompat) != 0, findings, "nx: NX_COMPAT is not set");
    Require((flags & pe::DllDynamicBase) != 0, findings, "base: DYNAMIC_BASE is not set");
    Require((image.FileCharacteristics() & pe::FileRelocationsStripped) == 0, findings, "relocations: stripped");
}

void CheckSections(const pe::Image& image, Findings& findings)
{
    bool entryIsCode = false;
    for (const pe::Section& section : image.Sections())
    {
        const bool executable = (section.Characteristics & pe::SectionExecute) != 0;
        const bool writable = (section.Characteristics & pe::SectionWrite) != 0;
        Require(!(executable && writable), findings, "sections: " + section.Name + " is writable and executable");
        entryIsCode = entryIsCode || (executable && image.EntryPoint() >= section.VirtualAddress &&
                                         image.EntryPoint() - section.VirtualAddress < section.VirtualSize);
    }
    Require(entryIsCode, findings, "entry: not in an executable section");
}

void CheckImports(const pe::Image& image, Findings& findings)
{
    const auto imports = image.Imports();
    Require(!imports.empty(), findings, "imports: none");
    for (const pe::Import& import : imports)
    {
        const auto known = std::ranges::find_if(Windows7Exports,
            [&](const Export& candidate)
            {
                return strcasecmp(candidate.Module, import.Module.c_str()) == 0 && import.Routine == candidate.Routine;
            });
        Require(known != std::end(Windows7Exports), findings,
            "imports: " + import.Module + " of Windows 7 is not known to export " + import.Routine);
    }
}

// sub rsp with a number. Pushes are no sign: the AES tables stand among the code and look like anything.
bool MakesFrame(const pe::Image& image, std::size_t offset)
{
    const auto code = image.File().subspan(offset, 3);
    return code[0] == 0x48 && (code[1] == 0x83 || code[1] == 0x81) && code[2] == 0xec;
}

// A function that makes a frame must be described, or a fault cannot unwind through it. Functions begin at multiples of
// 16. Those that are found so stand for the others: the compiler describes all or only those with handlers.
void CheckUnwindTable(const pe::Image& image, Findings& findings)
{
    const auto ranges = image.UnwindRanges();
    for (const pe::Section& section : image.Sections())
    {
        const std::uint32_t bytes = std::min(section.FileSize, section.VirtualSize);
        for (std::uint32_t at = 0; (section.Characteristics & pe::SectionExecute) != 0 && at + 16 <= bytes; at += 16)
        {
            const std::uint32_t address = section.VirtualAddress + at;
            const bool described = std::ranges::any_of(
                ranges, [=](const pe::UnwindRange& range) { return address >= range.Begin && address < range.End; });
            Require(described || !MakesFrame(image, section.FileOffset + at), findings,
                "unwinding: no entry for the function at " + std::to_string(address));
        }
    }
}

void CheckDebugRecord(const pe::Image& image, Findings& findings)
{
    const std::string name = image.PdbName();
    Require(name == "Tarnveil.pdb", findings, "debug: the PDB name is \"" + name + "\"");
}

}

std::vector<std::string> FindBrokenRules(const pe::Image& image)
{
    Findings findings;
    CheckHeaders(image, findings);
    CheckSections(image, findings);
    CheckImports(image, findings);
    CheckUnwindTable(image, findings);
    CheckDebugRecord(image, findings);
    return findings;
}
