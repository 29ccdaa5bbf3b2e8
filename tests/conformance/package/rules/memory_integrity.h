// What memory integrity (the hypervisor's watch over kernel code) demands of a driver: code that nobody can write,
// data that nobody can execute, each on pages of its own, and no executable memory taken at run time.
#pragma once

#include "findings.h"

#include "tests/conformance/image/pe_image.h"

#include <string>
#include <string_view>

namespace package
{

// One text per rule that the image breaks. Throws pe::Malformed when it cannot be read.
Findings FindMemoryIntegrityRisks(const pe::Image& image);

// One text per place in a source file of the driver that takes memory without leaving the choice of the pool to
// DefaultPoolType, or maps some without forbidding execution. `name` is the file's path below driver/.
Findings FindExecutableMemory(const std::string& name, std::string_view source);

}
