// Status values as people and scripts read them.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace tarnctl
{
inline constexpr std::uint32_t StatusSuccess = 0x00000000;
inline constexpr std::uint32_t StatusNoMoreEntries = 0x8000001A;
inline constexpr std::uint32_t StatusBufferTooSmall = 0xC0000023;

// Success and information, not warnings and errors.
constexpr bool IsSuccess(std::uint32_t status)
{
    return status < 0x80000000;
}

// "STATUS_..."; empty for a value that the driver and the system in between are not known to answer.
std::string_view StatusName(std::uint32_t status);
// "0xC000000D".
std::string StatusNumber(std::uint32_t status);
// "STATUS_INVALID_PARAMETER (0xC000000D)", or the number alone.
std::string StatusText(std::uint32_t status);
}
