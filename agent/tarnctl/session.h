// One run of the program: what its command line came to and where its output goes.
#pragma once

#include "agent/tarnctl/driver_client.h"
#include "agent/tarnctl/failure.h"
#include "agent/tarnctl/json.h"
#include "agent/tarnctl/transport.h"

#include <functional>
#include <iosfwd>
#include <memory>
#include <string>

namespace tarnctl
{
class Session
{
public:
    Session(Connect connect, std::ostream& output, std::ostream& error);

    // What the command line asked for, carried out once it was understood as a whole.
    std::function<void()> Action;
    bool Json = false;

    // Connects at the first call.
    Transport& Way();
    DriverClient& Driver();

    // One line of the answer, to where it is read at once. Throws Failure with Trouble when nobody takes it.
    void Line(const std::string& text);
    // One of the two forms, by --json.
    void Answer(const std::string& text, const JsonObject& json);
    void Warn(const std::string& text);
    // Says why, on standard error, and with --json as the answer too.
    void Report(const Failure& failure);

private:
    Connect connect_;
    std::ostream& output_;
    std::ostream& error_;
    std::unique_ptr<Transport> transport_;
    std::unique_ptr<DriverClient> driver_;
};
}
