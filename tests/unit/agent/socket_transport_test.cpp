// What is particular to the way over the control socket.
#include "common/descriptor.h"
#include "live/control/protocol.h"
#include "tests/unit/agent/tarnctl_fixture.h"

#include <sys/socket.h>
#include <sys/un.h>

#include <csignal>
#include <thread>

namespace tarnctl_test
{
namespace
{
class TarnctlSocket : public TarnctlTest
{
protected:
    void SetUp() override
    {
        TarnctlTest::SetUp();
        ASSERT_EQ(machine_.PutOnDisk(L"C:\\Sandbox\\plan.txt", "plan"), STATUS_SUCCESS);
    }

    void OpenInVain() { EXPECT_EQ(program_.Open(L"C:\\Sandbox\\plan.txt").Status(), STATUS_ACCESS_DENIED); }

    // With nothing in place of what the program really does.
    static Outcome RunAt(const std::vector<std::string>& arguments)
    {
        std::ostringstream output;
        std::ostringstream error;
        const int exit = tarnctl::RunOverSocket(arguments, tarnctl::ConnectToSocket, output, error);
        return {exit, output.str(), error.str()};
    }
    std::vector<std::string> AtSocket(std::vector<std::string> arguments)
    {
        arguments.insert(arguments.begin(), {"--socket", SocketPath()});
        return arguments;
    }
};

INSTANTIATE_TEST_SUITE_P(Ways, TarnctlSocket, testing::Values(Way::Socket), WayName);

TEST_P(TarnctlSocket, TheOptionNamesTheSocket)
{
    const Outcome outcome = RunAt(AtSocket({"status", "--json"}));
    EXPECT_EQ(outcome.Exit, 0) << outcome.Error;
    EXPECT_THAT(
        outcome.Output, StartsWith("{\"reachable\":true,\"system\":\"6.1\",\"driver\":\"native\",\"volumes\":["));
    EXPECT_EQ(RunAt({"--socket"}).Exit, 2);
}

TEST_P(TarnctlSocket, WithoutAServerThereIsSomethingToDo)
{
    const std::string path = socketFolder_.Path("none");
    const Outcome absent = RunAt({"--socket", path, "start"});
    EXPECT_EQ(absent.Exit, 3);
    EXPECT_EQ(absent.Error, "tarnctl: driver not reachable at " + path +
                                ": No such file or directory; start tarnhost, or name its socket with --socket or "
                                "TARNVEIL_SOCKET\n");
    EXPECT_EQ(RunAt({"--socket", path, "start", "--json"}).Output.substr(0, 44),
        "{\"error\":{\"message\":\"driver not reachable at");
    EXPECT_THAT(RunAt({"--socket", std::string(200, 'x'), "start"}).Error, HasSubstr("too long for a socket"));
    server_.reset();
    EXPECT_EQ(RunAt(AtSocket({"start"})).Exit, 3);
}

TEST_P(TarnctlSocket, WithoutADriverItIsNotReachable)
{
    ASSERT_EQ(machine_.UnloadDriver(), STATUS_SUCCESS);
    const Outcome outcome = RunAt(AtSocket({"start"}));
    EXPECT_EQ(outcome.Exit, 3);
    EXPECT_EQ(outcome.Error, "tarnctl: driver not reachable: the host runs, but its driver's control device cannot be "
                             "opened: STATUS_OBJECT_NAME_NOT_FOUND (0xC0000034)\n");
}

TEST_P(TarnctlSocket, AServerThatEndsAmidAFollowIsNoticed)
{
    const Waiting stop = [this](tarnctl::Transport& way, Longest)
    {
        server_.reset();
        return way.WaitForLogEvent({});
    };
    const Outcome outcome = Run({"log", "follow"}, stop);
    EXPECT_EQ(outcome.Exit, 3);
    EXPECT_EQ(outcome.Error, "tarnctl: driver not reachable: the host has ended the connection\n");
}

TEST_P(TarnctlSocket, AnInterruptEndsAFollowInOrder)
{
    const Waiting interrupted = [this, waits = 0](tarnctl::Transport& way, Longest longest) mutable
    {
        std::thread user;
        if (++waits == 1)
        {
            OpenInVain();
        }
        else
        {
            // Before or amid the wait, as it comes; the record is printed all the same.
            user = std::thread(
                [this]
                {
                    OpenInVain();
                    kill(getpid(), SIGINT);
                });
        }
        tarnctl::Wake wake = way.WaitForLogEvent(longest);
        if (user.joinable())
        {
            user.join();
            // The record may have come first.
            wake = wake == tarnctl::Wake::Signalled ? way.WaitForLogEvent(longest) : wake;
            EXPECT_EQ(wake, tarnctl::Wake::Interrupted);
        }
        return wake;
    };
    const Outcome outcome = Run({"log", "follow", "--levels", "denied"}, interrupted);
    EXPECT_EQ(outcome.Exit, 0) << outcome.Error;
    EXPECT_EQ(std::ranges::count(outcome.Output, '\n'), 2);
    OpenInVain();
    EXPECT_EQ(program_.GetLogData().Status, STATUS_NO_MORE_ENTRIES);
}

TEST_P(TarnctlSocket, SignalsAreAsBeforeWhenTheWayIsGone)
{
    struct sigaction before = {};
    sigaction(SIGINT, nullptr, &before);
    ASSERT_EQ(std::signal(SIGHUP, SIG_IGN), SIG_DFL);
    {
        const auto way = Connect();
        way->CreateLogEvent();
        struct sigaction during = {};
        sigaction(SIGINT, nullptr, &during);
        EXPECT_NE(during.sa_handler, before.sa_handler);
        sigaction(SIGHUP, nullptr, &during);
        EXPECT_EQ(during.sa_handler, SIG_IGN);
    }
    struct sigaction after = {};
    sigaction(SIGINT, nullptr, &after);
    EXPECT_EQ(after.sa_handler, before.sa_handler);
    std::signal(SIGHUP, SIG_DFL);
}

// What a host that is none, or of another time, might say.
class StrangeServer
{
public:
    StrangeServer(const std::string& path, std::vector<std::uint8_t> answer)
        : listener_(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0))
    {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof(address.sun_path) - 1);
        unlink(path.c_str());
        EXPECT_EQ(bind(listener_.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
        EXPECT_EQ(listen(listener_.Get(), 1), 0);
        thread_ = std::thread(
            [this, answer = std::move(answer)]
            {
                const common::Descriptor peer(accept4(listener_.Get(), nullptr, nullptr, SOCK_CLOEXEC));
                std::uint8_t request[control_socket::HeaderBytes + 4];
                EXPECT_EQ(recv(peer.Get(), request, sizeof(request), MSG_WAITALL), ssize_t{sizeof(request)});
                send(peer.Get(), answer.data(), answer.size(), MSG_NOSIGNAL);
            });
    }
    ~StrangeServer() { thread_.join(); }

private:
    common::Descriptor listener_;
    std::thread thread_;
};

TEST_P(TarnctlSocket, AnswersThatAreNoneAreTrouble)
{
    using control_socket::Frame;
    using control_socket::Writer;
    constexpr std::uint32_t Greeted = 0x80000001;
    const std::string path = socketFolder_.Path("strange");
    const struct
    {
        std::vector<std::uint8_t> Bytes;
        int Exit;
        const char* Text;
    } cases[] = {
        {{}, 3, "the host has ended the connection"},
        {std::vector<std::uint8_t>(16, 'x'), 4, "the host's answer is not understood"},
        {Frame(1, 1, {}), 4, "is not understood"},
        {Frame(Greeted, 2, Writer().Word(0).Bytes()), 4, "is not understood"},
        {Frame(Greeted, 1, {}), 4, "is not understood"},
        {Frame(Greeted, 1, Writer().Word(0).Word(1).Word(0).Bytes()), 4, "is not understood"},
        {Frame(Greeted, 1, Writer().Word(0).Word(1).Word(0).Text("6.1").Text("x").Word(0xFFFFFFFF).Bytes()), 4,
            "is not understood"},
        {Writer().Word(control_socket::Magic).Word(Greeted).Word(1).Word(0xFFFFFFFF).Bytes(), 4, "is not understood"},
        {Frame(Greeted, 1, Writer().Word(3).Text("this host speaks version 9").Bytes()), 3,
            "driver not reachable: this host speaks version 9"},
        {Frame(control_socket::AnswerBit, 0, Writer().Word(9).Text("too many\x1B[2J").Bytes()), 3,
            "driver not reachable: too many\\x1B[2J"},
        {Frame(Greeted, 1, Writer().Word(77).Text("what").Bytes()), 4, "the host refused the message: what"},
    };
    for (const auto& [bytes, exit, text] : cases)
    {
        const StrangeServer host(path, bytes);
        const Outcome outcome = RunAt({"--socket", path, "start"});
        EXPECT_EQ(outcome.Exit, exit) << text;
        EXPECT_THAT(outcome.Error, HasSubstr(text));
    }
}
}
}
