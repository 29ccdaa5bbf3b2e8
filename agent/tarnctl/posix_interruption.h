// The user's wish that the program end: Ctrl-C and its like.
#pragma once

#include "common/descriptor.h"

#include <csignal>
#include <iterator>

namespace tarnctl
{
// While it lives, the first such signal makes Descriptor readable instead of ending the program; the next one ends it.
// One at a time.
class Interruption
{
public:
    // Throws Failure with Trouble.
    Interruption();
    ~Interruption();
    Interruption(const Interruption&) = delete;
    Interruption& operator=(const Interruption&) = delete;

    int Descriptor() const { return readable_.Get(); }

private:
    static constexpr int Signals[] = {SIGINT, SIGTERM, SIGHUP};

    common::Descriptor readable_;
    struct sigaction previous_[std::size(Signals)] = {};
};
}
