// The routines that a source declares and defines.
#pragma once

#include "tests/conformance/source/reader/source_text.h"

#include <cstddef>
#include <string>
#include <vector>

namespace source
{
struct Routine
{
    // Without what it is a member of. A test is called after its macro, all operators `operator`.
    std::string Name;
    // As far as the source shows it: the class around the routine or before its name.
    std::string Class;
    // Declared inside a class, outside its public parts.
    bool IsHidden = false;
    // In a namespace without a name.
    bool IsLocal = false;
    int FirstLine = 0;
    int LastLine = 0;
    // Tokens: the head is [Head, Body), the body with its braces [Body, End); both ends equal for a declaration.
    size_t Head = 0;
    size_t Body = 0;
    size_t End = 0;
    // Tokens between which the parameters stand.
    size_t Parameters = 0;

    bool HasBody() const { return Body != End; }
};

// In the order in which they stand. Local classes and lambdas belong to the routine around them.
std::vector<Routine> RoutinesOf(const SourceText& source);
}
