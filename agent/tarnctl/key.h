// A key with its mask byte, from a file or from the command line.
#pragma once

#include "agent/tarnctl/files.h"

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace tarnctl
{
// 16, 24 or 32 key bytes and the mask byte. Wiped when it goes; never printed.
class Key
{
public:
    // Throws Failure with WrongUse when the length is none of 17, 25 and 33.
    explicit Key(std::span<const std::uint8_t> bytes);
    ~Key();
    Key(const Key&) = delete;
    Key& operator=(const Key&) = delete;

    // As the driver takes it: the key bytes, then the mask byte.
    std::span<const std::uint8_t> Whole() const { return {bytes_, length_}; }
    std::span<const std::uint8_t> Bytes() const { return {bytes_, length_ - 1}; }
    std::uint8_t Mask() const { return bytes_[length_ - 1]; }
    void SetMask(std::uint8_t mask) { bytes_[length_ - 1] = mask; }

private:
    std::uint8_t bytes_[33] = {};
    std::size_t length_ = 0;
};

enum class KeyForm
{
    Either, // a binary key is never as long as the hexadecimal text of one
    Hexadecimal
};

// Throw Failure with WrongUse; the text never repeats what was given. Blanks, line ends and colons between digits are
// passed over.
Key KeyFromHexadecimal(std::string_view text);
Key KeyFromFile(const std::string& path, KeyForm form);
}
