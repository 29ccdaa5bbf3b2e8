// A machine with the driver loaded, and tarnctl started there with command lines.
#pragma once

#include "agent/tarnctl/failure.h"
#include "agent/tarnctl/run.h"
#include "agent/tarnctl/socket_transport.h"
#include "live/control/control_server.h"
#include "hosted/machine/native_image.h"
#include "tests/support/machine.h"
#include "tests/unit/agent/hosted_transport.h"
#include "tests/support/temporary_folder.h"

#include <tarnveil/control.h>

#include <gmock/gmock.h>

#include <sstream>

namespace tarnctl_test
{
using namespace hosted;
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

enum class Way
{
    InMachine, // the program is one of the machine's
    Socket     // of this system's, through the control socket
};

inline const auto AllWays = testing::Values(Way::InMachine, Way::Socket);

inline std::string WayName(const testing::TestParamInfo<Way>& info)
{
    return info.param == Way::Socket ? "Socket" : "InMachine";
}

// Of the volumes that a host tells of.
inline const std::vector<VolumeText> ToldVolumes = {
    {"S:", "\\Device\\HarddiskVolume2", "/srv/store", "/mnt/safe"}, {"C:", "\\Device\\HarddiskVolume1", "/", ""}};

class TarnctlTest : public testing::TestWithParam<Way>
{
protected:
    void SetUp() override
    {
        machine_.Registry().SetString(Machine::ServiceKey, L"SandboxPath", L"\\Device\\HarddiskVolume1\\Sandbox");
        ASSERT_EQ(machine_.MakeFolder(L"C:\\Sandbox"), STATUS_SUCCESS);
        ASSERT_EQ(machine_.LoadDriver(Image::Native), STATUS_SUCCESS);
        if (GetParam() == Way::Socket)
        {
            ControlServerOptions options;
            options.Path = SocketPath();
            options.ProcessOf = [this](pid_t id) { return ProcessOf(id); };
            options.DriverText = "native";
            options.Volumes = ToldVolumes;
            server_.emplace(std::move(options));
        }
    }

    void TearDown() override
    {
        // Before the machine goes, as a host does it.
        server_.reset();
    }

    std::string SocketPath() const { return socketFolder_.Path("control"); }

    std::unique_ptr<tarnctl::Transport> Connect() const
    {
        return server_ ? tarnctl::ConnectToSocket(SocketPath()) : ConnectInMachine(program_);
    }

    Outcome Run(const std::vector<std::string>& arguments, Waiting waiting = SignalledOrInterrupted)
    {
        return RunWith([this, waiting] { return WaitingBy(waiting, Connect()); }, arguments);
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
    TemporaryFolder socketFolder_;
    std::optional<ControlServer> server_;

private:
    // This test program is tarnctl.
    Process* ProcessOf(pid_t id) const
    {
        if (id != getpid())
        {
            return nullptr;
        }
        ReferenceObject(program_.Object());
        return program_.Object();
    }
};
}
