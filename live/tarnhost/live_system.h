// A running system with a mounted volume: everything between its start and its end.
#pragma once

#include "hosted/machine/machine_options.h"

#include <cstdio>
#include <functional>
#include <string>

namespace live
{
struct LiveOptions
{
    std::string Store; // absolute paths without symbolic links, both there
    std::string Mount;
    std::string Image;    // the driver image to run; empty: the native driver
    std::string Registry; // the .reg file; empty: none
    std::string Socket;   // of the control device
    hosted::SystemModel System;
    FILE* Log = stdout;
};

// Runs until the volume is unmounted or one of SIGTERM, SIGINT and SIGHUP arrives, which the caller has blocked before
// it started any thread. `ready` is called once programs can use the volume. Throws std::runtime_error when it cannot
// start. False: something was left behind when the driver was unloaded, or the store did not take all that was
// written; the log says what.
bool RunLiveSystem(const LiveOptions& options, const std::function<void()>& ready);
}
