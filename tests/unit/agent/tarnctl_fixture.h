// A machine with the driver loaded, and tarnctl started there with command lines.
#pragma once

#include "agent/tarnctl/failure.h"
#include "agent/tarnctl/run.h"
#include "hosted/machine/native_image.h"
#include "hosted/machine/testing.h"
#include "tests/unit/agent/hosted_transport.h"

#include <tarnveil/control.h>

#include <gmock/gmock.h>

#include <sstream>

namespace tarnctl_test
{
using namespace host;
using testing::AllOf;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

// One run of the program.
struct Outcome
{
    int Exit = -1;
    std::string Output;
    std::string Error;
};

inline Outcome RunWith(const tarnctl::Connect& connect, const std::vector<std::string>& arguments)
{
    std::ostringstream output;
    std::ostringstream error;
    const int exit = tarnctl::Run(arguments, connect, output, error);
    return {exit, output.str(), error.str()};
}

// Where no driver is to be asked for.
inline std::unique_ptr<tarnctl::Transport> NoWay()
{
    throw tarnctl::Failure(tarnctl::ExitCode::NotReachable, "driver not reachable: none here");
}

class TarnctlTest : public testing::Test
{
protected:
    void SetUp() override
    {
        machine_.Registry().SetString(Machine::ServiceKey, L"SandboxPath", L"\\Device\\HarddiskVolume1\\Sandbox");
        ASSERT_EQ(machine_.MakeFolder(L"C:\\Sandbox"), STATUS_SUCCESS);
        ASSERT_EQ(machine_.LoadDriver(Image::Native), STATUS_SUCCESS);
    }

    Outcome Run(const std::vector<std::string>& arguments, Waiting waiting = SignalledOrInterrupted)
    {
        return RunWith([this, waiting] { return ConnectInMachine(program_, waiting); }, arguments);
    }

    // Of a run that must succeed and say nothing on standard error.
    std::string Output(const std::vector<std::string>& arguments)
    {
        const Outcome outcome = Run(arguments);
        EXPECT_EQ(outcome.Exit, 0) << outcome.Error;
        EXPECT_EQ(outcome.Error, "");
        return outcome.Output;
    }

    // The number in {"id":N,...}.
    ULONG AddedId(const std::string& json)
    {
        unsigned id = ~0u;
        EXPECT_EQ(std::sscanf(json.c_str(), "{\"id\":%u,", &id), 1) << json;
        return id;
    }

    Machine machine_;
    Program program_ = machine_.StartProcess(L"C:\\Agent\\tarnctl.exe");
};
}
