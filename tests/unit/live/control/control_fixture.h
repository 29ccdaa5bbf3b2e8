// A machine with the driver loaded, a control server in it, and programs that speak its protocol byte by byte.
#pragma once

#include "live/control/control_server.h"
#include "common/descriptor.h"
#include "live/control/protocol.h"
#include "hosted/machine/native_image.h"
#include "tests/support/machine.h"
#include "tests/support/temporary_folder.h"

#include <tarnveil/control.h>

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <gmock/gmock.h>

#include <atomic>
#include <optional>

namespace control_test
{
using common::Descriptor;
using namespace hosted;
using control_socket::Frame;
using control_socket::Kind;
using control_socket::Reader;
using control_socket::Result;
using control_socket::Woken;
using control_socket::Writer;
using testing::HasSubstr;
using Bytes = std::vector<std::uint8_t>;

inline sockaddr_un AddressOf(const std::string& path)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof(address.sun_path) - 1);
    return address;
}

// An answer; without one the connection has ended.
struct Answer
{
    std::uint32_t Kind = 0;
    std::uint32_t Number = 0;
    control_socket::Result Result = control_socket::Result::Done;
    Bytes Content; // behind the result
};

// Waits without end for what must come: the test's time limit ends a wait in vain.
class RawClient
{
public:
    explicit RawClient(const std::string& path) : socket_(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0))
    {
        const sockaddr_un address = AddressOf(path);
        connected_ = connect(socket_.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
    }

    bool IsConnected() const { return connected_; }
    // False when the server has hung up.
    bool SendBytes(std::span<const std::uint8_t> bytes)
    {
        while (!bytes.empty())
        {
            const ssize_t count = send(socket_.Get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
            if (count < 0)
            {
                return false;
            }
            bytes = bytes.subspan(static_cast<std::size_t>(count));
        }
        return true;
    }
    void Send(Kind kind, std::span<const std::uint8_t> body = {})
    {
        SendBytes(Frame(static_cast<std::uint32_t>(kind), ++number_, body));
    }
    // Nothing more is going to be sent.
    void EndSending() { shutdown(socket_.Get(), SHUT_WR); }
    void Close() { socket_.Close(); }

    std::optional<Answer> Receive()
    {
        Bytes bytes(control_socket::HeaderBytes);
        if (!Fill(bytes))
        {
            return std::nullopt;
        }
        const std::optional<control_socket::Header> header = control_socket::ParseHeader(bytes);
        EXPECT_TRUE(header.has_value());
        bytes.resize(header->BodyBytes);
        EXPECT_TRUE(Fill(bytes));
        Reader reader(bytes);
        Answer answer = {header->Kind, header->Number, static_cast<Result>(reader.Word()), {}};
        const std::span<const std::uint8_t> rest = reader.Rest();
        EXPECT_TRUE(reader.Ended());
        answer.Content.assign(rest.begin(), rest.end());
        return answer;
    }
    Answer Ask(Kind kind, std::span<const std::uint8_t> body = {})
    {
        Send(kind, body);
        const std::optional<Answer> answer = Receive();
        EXPECT_TRUE(answer.has_value());
        EXPECT_EQ(answer.value_or(Answer()).Kind, static_cast<std::uint32_t>(kind) | control_socket::AnswerBit);
        EXPECT_EQ(answer.value_or(Answer()).Number, number_);
        return answer.value_or(Answer());
    }
    // Whatever comes until the server hangs up.
    std::size_t CountAnswers()
    {
        std::size_t count = 0;
        while (Receive())
        {
            ++count;
        }
        return count;
    }
    bool HasAnswer() const
    {
        pollfd descriptor = {socket_.Get(), POLLIN, 0};
        return poll(&descriptor, 1, 0) == 1;
    }

    Answer Greet() { return Ask(Kind::Hello, Writer().Word(control_socket::Version).Bytes()); }
    Answer Control(std::uint32_t code, std::uint32_t outputSize = 0, std::span<const std::uint8_t> input = {})
    {
        return Ask(Kind::DeviceControl, Writer().Word(code).Word(outputSize).Rest(input).Bytes());
    }
    Answer Wait(std::uint32_t milliseconds) { return Ask(Kind::WaitForEvent, Writer().Word(milliseconds).Bytes()); }

private:
    bool Fill(std::span<std::uint8_t> bytes)
    {
        while (!bytes.empty())
        {
            const ssize_t count = recv(socket_.Get(), bytes.data(), bytes.size(), 0);
            if (count <= 0)
            {
                return false;
            }
            bytes = bytes.subspan(static_cast<std::size_t>(count));
        }
        return true;
    }

    Descriptor socket_;
    bool connected_ = false;
    std::uint32_t number_ = 0;
};

inline Bytes WordBytes(std::uint32_t value)
{
    return Writer().Word(value).Bytes();
}

// With its terminator, as requests take paths.
inline Bytes PathBytes(std::u16string_view path)
{
    const std::u16string text(path);
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(text.c_str());
    return {bytes, bytes + (text.size() + 1) * sizeof(char16_t)};
}

inline std::uint32_t WordOf(const Bytes& content, std::size_t index = 0)
{
    Reader reader(std::span(content).subspan(std::min(content.size(), index * 4)));
    return reader.Word();
}

class ControlTest : public testing::Test
{
protected:
    void SetUp() override
    {
        machine_.Registry().SetString(Machine::ServiceKey, L"SandboxPath", L"\\Device\\HarddiskVolume1\\Sandbox");
        machine_.Registry().SetDword(Machine::ProductKey, L"DebugLogLevel", 0x4100);
        ASSERT_EQ(machine_.MakeFolder(L"C:\\Sandbox"), STATUS_SUCCESS);
        ASSERT_EQ(machine_.PutOnDisk(L"C:\\Sandbox\\plan.txt", "plan"), STATUS_SUCCESS);
        ASSERT_EQ(machine_.LoadDriver(Image::Native), STATUS_SUCCESS);
        server_.emplace(Options());
    }
    void TearDown() override { server_.reset(); }

    std::string SocketPath() const { return folder_.Path("control"); }

    ControlServerOptions Options() const
    {
        ControlServerOptions options;
        options.Path = SocketPath();
        options.ProcessOf = [this](pid_t id) { return ProcessOf(id); };
        options.DriverText = "native";
        options.Volumes = {{"C:", "\\Device\\HarddiskVolume1", "/", ""}};
        return options;
    }

    // One that was greeted.
    RawClient Connected() const
    {
        RawClient client(SocketPath());
        EXPECT_TRUE(client.IsConnected());
        EXPECT_EQ(client.Greet().Result, Result::Done);
        return client;
    }

    // A denied open: a record of level 0x08, and the event when it is asked for.
    void OpenInVain() { EXPECT_EQ(agent_.Open(L"C:\\Sandbox\\plan.txt").Status(), STATUS_ACCESS_DENIED); }

    // Makes the client's event and has denied opens logged to it.
    void StartLogging(RawClient& client, std::uint32_t levels = TARNVEIL_LEVEL_DENIED_OPEN)
    {
        const Answer event = client.Ask(Kind::CreateEvent);
        ASSERT_EQ(event.Content.size(), 8u);
        Bytes input = event.Content;
        const Bytes mask = WordBytes(levels);
        input.insert(input.end(), mask.begin(), mask.end());
        const Answer answer = client.Control(IOCTL_START_LOGGING, 0, input);
        ASSERT_EQ(WordOf(answer.Content), static_cast<std::uint32_t>(STATUS_SUCCESS));
    }

    // The server still serves: a new program is answered.
    void ExpectServing()
    {
        RawClient client = Connected();
        const Answer answer = client.Control(IOCTL_IS_EXIST_UNDER_SANDBOX, 4);
        EXPECT_EQ(answer.Result, Result::Done);
        EXPECT_EQ(WordOf(answer.Content), static_cast<std::uint32_t>(STATUS_SUCCESS));
    }

    Machine machine_;
    TemporaryFolder folder_;
    Program agent_ = machine_.StartProcess(L"C:\\Agent\\agent.exe");
    std::atomic<pid_t> known_{getpid()};
    std::optional<ControlServer> server_;

private:
    Process* ProcessOf(pid_t id) const
    {
        if (id != known_)
        {
            return nullptr;
        }
        ReferenceObject(agent_.Object());
        return agent_.Object();
    }
};
}
