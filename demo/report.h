// One printed line per step, and the end of the road at the first step that does not hold.
#pragma once

#include "hosted/machine/machine.h"

#include <chrono>
#include <stdexcept>
#include <string>

namespace demo
{
// A step that did not hold.
class StepFailed : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

// `step` in a column of its own, then what was done and what was found.
void Say(const std::string& step, const std::string& what);

// As 0xC0000022.
std::string StatusText(NTSTATUS status);

// Throws StepFailed, which names `what`, unless it held.
void Expect(bool held, const std::string& what);
void ExpectStatus(NTSTATUS status, NTSTATUS wanted, const std::string& what);

class Stopwatch
{
public:
    // Seconds since it was made, as "1.25 s".
    std::string Text() const;

private:
    std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
};
}
