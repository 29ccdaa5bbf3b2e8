#include "agent/tarnctl/socket_client.h"

#include "agent/tarnctl/failure.h"
#include "agent/tarnctl/text.h"

#include <sys/socket.h>

#include <cerrno>

namespace tarnctl
{
using control_socket::Result;

namespace
{
[[noreturn]] void FailGone()
{
    throw Failure(ExitCode::NotReachable, "driver not reachable: the host has ended the connection");
}

// Behind the result, which says Done; otherwise throws with the host's own words.
std::vector<std::uint8_t> Content(const std::vector<std::uint8_t>& body)
{
    control_socket::Reader reader(body);
    const auto result = static_cast<Result>(reader.Word());
    if (!reader.Good())
    {
        FailWithStrangeAnswer();
    }
    if (result == Result::Done)
    {
        const std::span<const std::uint8_t> rest = reader.Rest();
        return {rest.begin(), rest.end()};
    }
    const std::string why = Printable(reader.Text());
    switch (result)
    {
    case Result::NoDriver:
    case Result::Refused:
    case Result::WrongVersion:
    case Result::TooMany:
        throw Failure(ExitCode::NotReachable, "driver not reachable: " + why);
    default:
        throw Failure(ExitCode::Trouble, "the host refused the message: " + why);
    }
}
}

void FailWithStrangeAnswer()
{
    throw Failure(ExitCode::Trouble, "the host's answer is not understood");
}

std::vector<std::uint8_t> SocketClient::Ask(control_socket::Kind kind, Body body, Body rest)
{
    Send(kind, body, rest);
    return Receive();
}

void SocketClient::Send(control_socket::Kind kind, Body body, Body rest)
{
    const auto frame =
        control_socket::Frame(static_cast<std::uint32_t>(kind), ++sent_, body, body.size() + rest.size());
    // A failure shows when the answer is read: what the host said before it hung up tells why.
    if (SendAll(frame))
    {
        SendAll(rest);
    }
}

bool SocketClient::SendAll(Body bytes)
{
    while (!bytes.empty())
    {
        const ssize_t count = send(socket_.Get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (count < 0 && errno != EINTR)
        {
            return false;
        }
        bytes = bytes.subspan(count > 0 ? static_cast<std::size_t>(count) : 0);
    }
    return true;
}

std::vector<std::uint8_t> SocketClient::Receive()
{
    std::uint8_t bytes[control_socket::HeaderBytes];
    Fill(bytes);
    const std::optional<control_socket::Header> header = control_socket::ParseHeader(bytes);
    if (!header || (header->Kind & control_socket::AnswerBit) == 0 || header->BodyBytes > control_socket::MostBodyBytes)
    {
        FailWithStrangeAnswer();
    }
    std::vector<std::uint8_t> body(header->BodyBytes);
    Fill(body);
    // A host that takes no one in says so without having been asked.
    const bool unasked = header->Kind == control_socket::AnswerBit && header->Number == 0;
    if (!unasked && header->Number != ++received_)
    {
        FailWithStrangeAnswer();
    }
    return Content(body);
}

void SocketClient::Fill(std::span<std::uint8_t> bytes)
{
    std::size_t filled = 0;
    while (filled < bytes.size())
    {
        const ssize_t count = recv(socket_.Get(), bytes.data() + filled, bytes.size() - filled, 0);
        if (count == 0 || (count < 0 && errno != EINTR))
        {
            FailGone();
        }
        filled += count > 0 ? static_cast<std::size_t>(count) : 0;
    }
}
}
