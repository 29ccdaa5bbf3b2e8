// Log events and waiting for them over the control socket.
#include "tests/unit/live/control/control_fixture.h"

#include <thread>

namespace control_test
{
namespace
{
std::uint32_t Wake(const Answer& answer)
{
    EXPECT_EQ(answer.Result, Result::Done);
    EXPECT_EQ(answer.Content.size(), 4u);
    return WordOf(answer.Content);
}

constexpr auto Signalled = static_cast<std::uint32_t>(Woken::Signalled);
constexpr auto TimedOut = static_cast<std::uint32_t>(Woken::TimedOut);
constexpr auto Ended = static_cast<std::uint32_t>(Woken::Ended);

class ControlEventTest : public ControlTest
{
};

TEST_F(ControlEventTest, AConnectionHasOneEvent)
{
    RawClient client = Connected();
    EXPECT_EQ(client.Wait(0).Result, Result::Missing);
    const Answer event = client.Ask(Kind::CreateEvent);
    EXPECT_EQ(event.Content.size(), 8u);
    EXPECT_EQ(client.Ask(Kind::CreateEvent).Content, event.Content);
    EXPECT_EQ(agent_.Object()->Handles.Count(), 1u);
    RawClient other = Connected();
    EXPECT_NE(other.Ask(Kind::CreateEvent).Content, event.Content);
    EXPECT_EQ(agent_.Object()->Handles.Count(), 2u);
    client.EndSending();
    EXPECT_EQ(client.CountAnswers(), 0u);
    EXPECT_EQ(agent_.Object()->Handles.Count(), 1u);
}

TEST_F(ControlEventTest, ASignalEndsOneWait)
{
    RawClient client = Connected();
    StartLogging(client);
    EXPECT_EQ(Wake(client.Wait(0)), TimedOut);
    EXPECT_EQ(Wake(client.Wait(20)), TimedOut);
    OpenInVain();
    OpenInVain();
    EXPECT_EQ(Wake(client.Wait(control_socket::WaitForever)), Signalled);
    EXPECT_EQ(Wake(client.Wait(0)), TimedOut);
    EXPECT_EQ(Wake(client.Wait(1)), TimedOut);
}

TEST_F(ControlEventTest, ASignalEndsAWaitUnderWay)
{
    RawClient client = Connected();
    StartLogging(client);
    for (int i = 0; i < 50; ++i)
    {
        client.Send(Kind::WaitForEvent, WordBytes(control_socket::WaitForever));
        EXPECT_FALSE(client.HasAnswer());
        OpenInVain();
        EXPECT_EQ(Wake(client.Receive().value()), Signalled);
    }
}

TEST_F(ControlEventTest, AWaitHoldsUpNobodyElse)
{
    RawClient waiting = Connected();
    StartLogging(waiting);
    waiting.Send(Kind::WaitForEvent, WordBytes(control_socket::WaitForever));
    ExpectServing();
    EXPECT_FALSE(waiting.HasAnswer());
}

TEST_F(ControlEventTest, TheNextRequestEndsAWait)
{
    RawClient client = Connected();
    StartLogging(client);
    client.Send(Kind::WaitForEvent, WordBytes(control_socket::WaitForever));
    client.Send(Kind::EndWait);
    EXPECT_EQ(Wake(client.Receive().value()), Ended);
    EXPECT_EQ(client.Receive().value().Result, Result::Done);
    client.Send(Kind::WaitForEvent, WordBytes(60000));
    EXPECT_EQ(
        [&]
        {
            client.Send(Kind::DeviceControl, Writer().Word(IOCTL_START).Word(0).Bytes());
            return Wake(client.Receive().value());
        }(),
        Ended);
    EXPECT_EQ(WordOf(client.Receive().value().Content), static_cast<std::uint32_t>(STATUS_SUCCESS));
    EXPECT_EQ(client.Ask(Kind::EndWait).Result, Result::Done);
}

TEST_F(ControlEventTest, AProgramThatGoesAwayWhileItWaitsIsNoticed)
{
    RawClient client = Connected();
    StartLogging(client);
    client.Send(Kind::WaitForEvent, WordBytes(control_socket::WaitForever));
    EXPECT_EQ(agent_.Object()->Handles.Count(), 1u);
    client.EndSending();
    // The server's side ends, too, with everything given back.
    EXPECT_EQ(client.CountAnswers(), 0u);
    EXPECT_EQ(agent_.Object()->Handles.Count(), 0u);
    // What the driver holds of the event it holds on.
    OpenInVain();
}

TEST_F(ControlEventTest, EveryWaitSeesTheRecordsOfItsSignal)
{
    constexpr int Opens = 200;
    RawClient client = Connected();
    StartLogging(client);
    std::thread opener(
        [this]
        {
            for (int i = 0; i < Opens; ++i)
            {
                OpenInVain();
            }
        });
    std::size_t records = 0;
    while (records < Opens)
    {
        ASSERT_EQ(Wake(client.Wait(control_socket::WaitForever)), Signalled);
        records += WordOf(client.Control(IOCTL_GET_LOG_DATA, 256 * TARNVEIL_LOG_RECORD_BYTES).Content, 1) /
                   TARNVEIL_LOG_RECORD_BYTES;
    }
    opener.join();
    EXPECT_EQ(records, std::size_t{Opens});
}
}
}
