// Why a command ended without having done its work.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>

namespace tarnctl
{
// What the program returns; scripts rely on the numbers.
enum class ExitCode
{
    Success = 0,
    Refused = 1, // by the driver
    WrongUse = 2,
    NotReachable = 3, // the driver
    Trouble = 4       // on this side: a file, the mailslot, the output
};

class Failure : public std::runtime_error
{
public:
    Failure(ExitCode code, const std::string& text) : std::runtime_error(text), code_(code) {}
    ExitCode Code() const { return code_; }

private:
    ExitCode code_;
};

// The driver answered a request with a failure status.
class Refusal : public Failure
{
public:
    // `request` as in tarnveil/control.h.
    Refusal(const char* request, std::uint32_t status);
    const char* Request() const { return request_; }
    std::uint32_t Status() const { return status_; }

private:
    const char* request_;
    std::uint32_t status_;
};
}
