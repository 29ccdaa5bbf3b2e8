// Messages that are damaged, cut off, too long or none at all.
#include "tests/unit/live/control/control_fixture.h"

#include <iostream>
#include <random>

namespace control_test
{
namespace
{
Bytes FrameOf(Kind kind, const Bytes& body = {})
{
    return Frame(static_cast<std::uint32_t>(kind), 1, body);
}

Bytes Greeting()
{
    return FrameOf(Kind::Hello, WordBytes(control_socket::Version));
}

// One of each kind, which all end by themselves.
std::vector<Bytes> Messages()
{
    const Bytes path = PathBytes(u"C:\\Apps\\Editor.exe");
    return {
        Greeting(),
        FrameOf(Kind::DeviceControl, Writer().Word(IOCTL_ADD_PROCESS).Word(4).Rest(path).Bytes()),
        FrameOf(Kind::DeviceControl, Writer().Word(IOCTL_GET_LOG_DATA).Word(1096).Bytes()),
        FrameOf(Kind::CreateEvent),
        FrameOf(Kind::WaitForEvent, WordBytes(0)),
        FrameOf(Kind::EndWait),
        FrameOf(Kind::CreateMailslot),
        FrameOf(Kind::ReadMailslot),
        FrameOf(Kind::CloseMailslot),
    };
}

class ControlDamageTest : public ControlTest
{
protected:
    // Sends bytes behind a greeting and an event, then nothing more. The answers behind those two.
    std::size_t Answers(std::span<const std::uint8_t> bytes)
    {
        RawClient client = Connected();
        client.Ask(Kind::CreateEvent);
        client.SendBytes(bytes);
        client.EndSending();
        return client.CountAnswers();
    }
};

TEST_F(ControlDamageTest, AMessageCutOffAnywhereIsNotAnswered)
{
    for (const Bytes& message : Messages())
    {
        for (std::size_t length = 0; length < message.size(); ++length)
        {
            EXPECT_EQ(Answers(std::span(message).first(length)), 0u);
        }
        EXPECT_EQ(Answers(message), 1u);
    }
    ExpectServing();
}

TEST_F(ControlDamageTest, AFlippedBitHurtsNobodyElse)
{
    RawClient other = Connected();
    for (const Bytes& message : Messages())
    {
        for (std::size_t bit = 0; bit < message.size() * 8; ++bit)
        {
            Bytes damaged = message;
            damaged[bit / 8] ^= static_cast<std::uint8_t>(1u << bit % 8);
            // Not more than the message and what may be taken for a second one: a damaged length cuts it in two.
            EXPECT_LE(Answers(damaged), 2u);
        }
        EXPECT_EQ(other.Control(IOCTL_IS_EXIST_UNDER_SANDBOX, 4).Result, Result::Done);
    }
    ExpectServing();
}

TEST_F(ControlDamageTest, RandomBytesHurtNobodyElse)
{
    const char* given = std::getenv("TARNVEIL_SEED");
    const std::uint64_t seed = given != nullptr ? std::strtoull(given, nullptr, 10) : std::random_device()();
    std::cout << "seed " << seed << ": TARNVEIL_SEED=" << seed
              << " unit_tests --gtest_filter=ControlDamageTest.RandomBytesHurtNobodyElse" << std::endl;
    std::mt19937_64 random(seed);
    for (int i = 0; i < 300; ++i)
    {
        Bytes bytes(random() % 200);
        for (std::uint8_t& byte : bytes)
        {
            byte = static_cast<std::uint8_t>(random());
        }
        // Half of them look like a message from outside.
        if (i % 2 == 0)
        {
            bytes = Frame(static_cast<std::uint32_t>(random() % 10), static_cast<std::uint32_t>(random()), bytes);
        }
        Answers(bytes);
    }
    ExpectServing();
}

TEST_F(ControlDamageTest, WhatIsNoMessageEndsTheConnection)
{
    RawClient client = Connected();
    client.SendBytes(Bytes(control_socket::HeaderBytes, 'G'));
    const std::optional<Answer> answer = client.Receive();
    ASSERT_TRUE(answer.has_value());
    EXPECT_EQ(answer->Kind, control_socket::AnswerBit);
    EXPECT_EQ(answer->Result, Result::Malformed);
    EXPECT_FALSE(client.Receive());
}

TEST_F(ControlDamageTest, AMessageThatIsTooLongEndsTheConnection)
{
    for (const std::uint32_t length : {control_socket::MostBodyBytes + 1, 0x80000000u, 0xFFFFFFFFu})
    {
        RawClient client = Connected();
        client.SendBytes(Writer().Word(control_socket::Magic).Word(2).Word(77).Word(length).Bytes());
        const std::optional<Answer> answer = client.Receive();
        ASSERT_TRUE(answer.has_value());
        EXPECT_EQ(answer->Number, 77u);
        EXPECT_EQ(answer->Result, Result::TooLong);
        EXPECT_FALSE(client.Receive());
    }
}

TEST_F(ControlDamageTest, BodiesOfAWrongLengthAreRefusedAndTheConnectionGoesOn)
{
    RawClient client = Connected();
    for (const auto& [kind, most] : {std::pair(Kind::Hello, 9), std::pair(Kind::WaitForEvent, 9)})
    {
        for (int length = 0; length < most; ++length)
        {
            if (length != 4)
            {
                EXPECT_EQ(client.Ask(kind, Bytes(static_cast<std::size_t>(length), 0)).Result, Result::Malformed);
            }
        }
    }
    for (std::size_t length = 0; length < 8; ++length)
    {
        EXPECT_EQ(client.Ask(Kind::DeviceControl, Bytes(length, 0)).Result, Result::Malformed);
    }
    for (const Kind kind :
        {Kind::CreateEvent, Kind::EndWait, Kind::CreateMailslot, Kind::ReadMailslot, Kind::CloseMailslot})
    {
        EXPECT_EQ(client.Ask(kind, Bytes(1, 0)).Result, Result::Malformed);
    }
    EXPECT_EQ(client.Ask(Kind::CreateEvent).Result, Result::Done);
}

TEST_F(ControlDamageTest, UnknownKindsAreRefusedAndTheConnectionGoesOn)
{
    RawClient client = Connected();
    for (const std::uint32_t kind : {0u, 9u, 0x80000001u, 0xFFFFFFFFu})
    {
        client.SendBytes(Frame(kind, 5, {}));
        const std::optional<Answer> answer = client.Receive();
        ASSERT_TRUE(answer.has_value());
        EXPECT_EQ(answer->Kind, kind | control_socket::AnswerBit);
        EXPECT_EQ(answer->Number, 5u);
        EXPECT_EQ(answer->Result, Result::UnknownKind);
    }
    EXPECT_EQ(client.Ask(Kind::CreateEvent).Result, Result::Done);
}

TEST_F(ControlDamageTest, HalfAMessageHoldsItsOwnConnectionOnly)
{
    RawClient half = Connected();
    const Bytes message =
        Frame(static_cast<std::uint32_t>(Kind::DeviceControl), 2, Writer().Word(IOCTL_START).Word(0).Bytes());
    half.SendBytes(std::span(message).first(20));
    RawClient headless(SocketPath());
    headless.SendBytes(std::span(message).first(3));
    ExpectServing();
    EXPECT_FALSE(half.HasAnswer());
    half.SendBytes(std::span(message).subspan(20));
    EXPECT_EQ(half.Receive().value().Result, Result::Done);
}

TEST_F(ControlDamageTest, AProgramThatReadsNothingHoldsItsOwnConnectionOnly)
{
    RawClient deaf = Connected();
    const Bytes request = Frame(static_cast<std::uint32_t>(Kind::DeviceControl), 2,
        Writer().Word(IOCTL_STOP).Word(control_socket::MostBufferBytes).Bytes());
    for (int i = 0; i < 8; ++i)
    {
        deaf.SendBytes(request);
    }
    ExpectServing();
    for (int i = 0; i < 8; ++i)
    {
        EXPECT_EQ(deaf.Receive().value().Content.size(), 8u + control_socket::MostBufferBytes);
    }
}
}
}
