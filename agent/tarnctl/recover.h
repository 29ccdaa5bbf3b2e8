// Enciphered files without a driver.
#pragma once

#include "agent/tarnctl/key.h"

#include <cstdint>
#include <optional>
#include <string>

namespace tarnctl
{
enum class Direction
{
    Recover, // from the form on disk to the plain one
    Conceal  // the reverse
};

struct Conversion
{
    Direction Way = Direction::Recover;
    std::string KeyFile;
    KeyForm Form = KeyForm::Either;
    std::optional<std::uint8_t> Mask = {}; // in place of the key file's
    std::string Input;
    std::string Output;
    // The size of the stream when it is not the input's.
    std::optional<std::uint64_t> Size = {};
};

struct ConversionResult
{
    std::uint64_t Bytes = 0;
    // Where the input ended when it was shorter than the size that was named; from there on the output is zeros.
    std::optional<std::uint64_t> ZeroFrom = {};
};

// Writes the output under another name and renames it when it is whole. Throws Failure: WrongUse for what can be seen
// before the work begins, and for a size beyond the end of a file to conceal; Trouble when a file fails.
ConversionResult Convert(const Conversion& conversion);
}
