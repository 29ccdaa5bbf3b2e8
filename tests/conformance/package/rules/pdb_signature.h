// The signature by which a debugger finds the PDB that belongs to an image.
#pragma once

#include "tests/conformance/image/pe_image.h"

#include <cstdint>
#include <string>
#include <vector>

namespace package
{

// GUID and age as text, "0123456789abcdef0123456789abcdef-1"; the GUID's bytes in the order of the file.
// From the debug record of an image; empty when it has none. Throws pe::Malformed.
std::string ImagePdbSignature(const pe::Image& image);
// From a PDB file; empty when the file is none.
std::string PdbSignature(const std::vector<std::uint8_t>& file);

}
