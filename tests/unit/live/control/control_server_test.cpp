// What programs get over the control socket.
#include "tests/unit/live/control/control_fixture.h"

#include "hosted/machine/log_record.h"

#include <sys/stat.h>

#include <thread>

namespace control_test
{
namespace
{
class ControlServerTest : public ControlTest
{
};

TEST_F(ControlServerTest, GreetingTellsOfTheServer)
{
    RawClient client(SocketPath());
    const Answer answer = client.Greet();
    EXPECT_EQ(answer.Result, Result::Done);
    Reader reader(answer.Content);
    EXPECT_EQ(reader.Word(), control_socket::Version);
    EXPECT_EQ(reader.Word(), static_cast<std::uint32_t>(STATUS_SUCCESS));
    EXPECT_EQ(reader.Text(), "6.1");
    EXPECT_EQ(reader.Text(), "native");
    EXPECT_EQ(reader.Word(), 1u);
    EXPECT_EQ(reader.Text(), "C:");
    EXPECT_EQ(reader.Text(), "\\Device\\HarddiskVolume1");
    EXPECT_EQ(reader.Text(), "/");
    EXPECT_EQ(reader.Text(), "");
    EXPECT_TRUE(reader.Ended());
    // Again and again.
    EXPECT_EQ(client.Greet().Content, answer.Content);
}

TEST_F(ControlServerTest, AnotherVersionIsRefused)
{
    RawClient client(SocketPath());
    EXPECT_EQ(client.Ask(Kind::Hello, WordBytes(2)).Result, Result::WrongVersion);
    EXPECT_EQ(client.Control(IOCTL_START).Result, Result::NotGreeted);
    EXPECT_EQ(client.Greet().Result, Result::Done);
}

TEST_F(ControlServerTest, NothingComesBeforeTheGreeting)
{
    RawClient client(SocketPath());
    for (const Kind kind : {Kind::DeviceControl, Kind::CreateEvent, Kind::WaitForEvent, Kind::EndWait,
             Kind::CreateMailslot, Kind::ReadMailslot, Kind::CloseMailslot})
    {
        EXPECT_EQ(client.Ask(kind).Result, Result::NotGreeted);
    }
}

TEST_F(ControlServerTest, WhoConnectsIsTheSenderWhateverBecomesOfItsId)
{
    RawClient client(SocketPath());
    ASSERT_TRUE(client.IsConnected());
    // Taken after it, so that one is taken as well.
    const RawClient later = Connected();
    known_ = -1;
    EXPECT_EQ(client.Greet().Result, Result::Done);
}

TEST_F(ControlServerTest, AnUnknownProcessIsRefused)
{
    known_ = -1;
    RawClient client(SocketPath());
    const Answer answer = client.Greet();
    EXPECT_EQ(answer.Result, Result::Refused);
    Reader reader(answer.Content);
    EXPECT_EQ(reader.Text(), "process " + std::to_string(getpid()) + " is not known to the hosted system");
    EXPECT_EQ(client.Control(IOCTL_START).Result, Result::NotGreeted);
}

TEST_F(ControlServerTest, AnswersInTheOutputBufferArriveWithoutAByteCount)
{
    RawClient client = Connected();
    const Answer added = client.Control(IOCTL_ADD_PROCESS, 4, PathBytes(u"C:\\Apps\\Editor.exe"));
    EXPECT_EQ(added.Result, Result::Done);
    ASSERT_EQ(added.Content.size(), 12u);
    EXPECT_EQ(WordOf(added.Content, 0), static_cast<std::uint32_t>(STATUS_SUCCESS));
    EXPECT_EQ(WordOf(added.Content, 1), 0u);
    const Program editor = machine_.StartProcess(L"C:\\Apps\\Editor.exe");
    const Answer pids = client.Control(IOCTL_GET_PID_LIST_UNDER_SANDBOX, 12);
    ASSERT_EQ(pids.Content.size(), 20u);
    EXPECT_EQ(WordOf(pids.Content, 1), 0u);
    EXPECT_EQ(WordOf(pids.Content, 2), 1u);
    EXPECT_EQ(WordOf(pids.Content, 3), editor.ProcessId());
    EXPECT_EQ(WordOf(pids.Content, 4), 0u);
    // Also when the request fails.
    const Answer tooSmall = client.Control(IOCTL_GET_PID_LIST_UNDER_SANDBOX, 4);
    EXPECT_EQ(WordOf(tooSmall.Content, 0), static_cast<std::uint32_t>(STATUS_BUFFER_TOO_SMALL));
    EXPECT_EQ(WordOf(tooSmall.Content, 2), 1u);
}

TEST_F(ControlServerTest, StatusesArriveAsTheyAre)
{
    RawClient client = Connected();
    EXPECT_EQ(WordOf(client.Control(0x222028).Content), static_cast<std::uint32_t>(STATUS_INVALID_PARAMETER));
    EXPECT_EQ(WordOf(client.Control(IOCTL_GET_LOG_DATA, TARNVEIL_LOG_RECORD_BYTES).Content),
        static_cast<std::uint32_t>(STATUS_NO_MORE_ENTRIES));
    EXPECT_EQ(WordOf(client.Control(IOCTL_ADD_PROCESS, 8, PathBytes(u"C:\\a.exe")).Content),
        static_cast<std::uint32_t>(STATUS_INVALID_PARAMETER));
}

TEST_F(ControlServerTest, LogRecordsArriveWithTheirByteCount)
{
    RawClient client = Connected();
    StartLogging(client);
    OpenInVain();
    const Answer answer = client.Control(IOCTL_GET_LOG_DATA, 3 * TARNVEIL_LOG_RECORD_BYTES);
    EXPECT_EQ(WordOf(answer.Content, 1), std::uint32_t{TARNVEIL_LOG_RECORD_BYTES});
    ASSERT_EQ(answer.Content.size(), 8 + 3 * TARNVEIL_LOG_RECORD_BYTES);
    const std::vector<LogRecord> records = DecodeLogRecords(
        {reinterpret_cast<const char*>(answer.Content.data()) + 8, std::size_t{TARNVEIL_LOG_RECORD_BYTES}});
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].ProcessId, agent_.ProcessId());
    EXPECT_THAT(records[0].Message, HasSubstr("status = 0xC0000022L"));
}

TEST_F(ControlServerTest, RequestsAreMadeByTheProcessThatConnected)
{
    RawClient client = Connected();
    StartLogging(client, TARNVEIL_LEVEL_TRACE);
    client.Control(IOCTL_SET_ENCRYPTION, 0, WordBytes(0));
    const std::vector<LogRecord> records = agent_.DrainLog();
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(records[1].ProcessId, agent_.ProcessId());
    EXPECT_EQ(records[1].ProcessName, "agent.exe");
    EXPECT_EQ(records[1].Message, "IRP = DEV_CTRL IOCTL = ENCRYPT Encrypt = Disable");
}

TEST_F(ControlServerTest, TheLongestBuffersPassAndLongerOnesDoNot)
{
    RawClient client = Connected();
    const std::uint32_t most = control_socket::MostBufferBytes;
    const Bytes input(most, 0);
    const Answer passed = client.Control(IOCTL_STOP, most, input);
    EXPECT_EQ(passed.Result, Result::Done);
    EXPECT_EQ(passed.Content.size(), 8u + most);
    EXPECT_EQ(client.Control(IOCTL_STOP, most + 1).Result, Result::TooLong);
    EXPECT_EQ(client.Control(IOCTL_STOP, 0xFFFFFFFF).Result, Result::TooLong);
    EXPECT_EQ(client.Control(IOCTL_STOP, 0, Bytes(most + 1, 0)).Result, Result::TooLong);
    EXPECT_EQ(client.Control(IOCTL_STOP).Result, Result::Done);
}

TEST_F(ControlServerTest, WithoutADriverRequestsSaySo)
{
    RawClient before = Connected();
    ASSERT_EQ(machine_.UnloadDriver(), STATUS_SUCCESS);
    EXPECT_EQ(before.Control(IOCTL_START).Result, Result::NoDriver);
    RawClient after(SocketPath());
    const Answer greeting = after.Greet();
    EXPECT_EQ(greeting.Result, Result::Done);
    EXPECT_EQ(WordOf(greeting.Content, 1), static_cast<std::uint32_t>(STATUS_OBJECT_NAME_NOT_FOUND));
    ASSERT_EQ(machine_.LoadDriver(Image::Native), STATUS_SUCCESS);
    EXPECT_EQ(before.Control(IOCTL_START).Result, Result::Done);
}

TEST_F(ControlServerTest, TheMailslotHasWhatTheDriverWrote)
{
    RawClient client = Connected();
    EXPECT_EQ(client.Ask(Kind::ReadMailslot).Result, Result::Missing);
    EXPECT_EQ(WordOf(client.Ask(Kind::CreateMailslot).Content), static_cast<std::uint32_t>(STATUS_SUCCESS));
    EXPECT_EQ(
        WordOf(client.Ask(Kind::CreateMailslot).Content), static_cast<std::uint32_t>(STATUS_OBJECT_NAME_COLLISION));
    client.Control(IOCTL_OUTPUT_CURRENT_PARAM);
    const Answer line = client.Ask(Kind::ReadMailslot);
    ASSERT_GT(line.Content.size(), 8u);
    EXPECT_EQ(WordOf(line.Content), 1u);
    EXPECT_EQ(line.Content[4], '0');
    EXPECT_EQ(line.Content[6], '|');
    std::size_t lines = 1;
    while (WordOf(client.Ask(Kind::ReadMailslot).Content) == 1)
    {
        ++lines;
    }
    EXPECT_GT(lines, 5u);
    EXPECT_EQ(client.Ask(Kind::ReadMailslot).Content, WordBytes(0));
    EXPECT_EQ(client.Ask(Kind::CloseMailslot).Result, Result::Done);
    EXPECT_EQ(client.Ask(Kind::ReadMailslot).Result, Result::Missing);
}

TEST_F(ControlServerTest, TheMailslotIsFreeAgainWhenItsReaderIsGone)
{
    RawClient first = Connected();
    RawClient second = Connected();
    first.Ask(Kind::CreateMailslot);
    EXPECT_EQ(
        WordOf(second.Ask(Kind::CreateMailslot).Content), static_cast<std::uint32_t>(STATUS_OBJECT_NAME_COLLISION));
    first.EndSending();
    EXPECT_EQ(first.CountAnswers(), 0u);
    // The server hangs up after it has given everything back.
    EXPECT_EQ(WordOf(second.Ask(Kind::CreateMailslot).Content), static_cast<std::uint32_t>(STATUS_SUCCESS));
}

TEST_F(ControlServerTest, ASecondServerOfTheSamePathIsAnError)
{
    try
    {
        const ControlServer second(Options());
        ADD_FAILURE() << "two servers";
    }
    catch (const std::runtime_error& error)
    {
        EXPECT_EQ(error.what(), "control socket " + SocketPath() + ": another host serves it already");
    }
    ExpectServing();
}

TEST_F(ControlServerTest, AConnectionBeyondTheLimitIsToldSo)
{
    std::vector<RawClient> clients;
    for (std::size_t i = 0; i < control_socket::MostConnections; ++i)
    {
        clients.push_back(Connected());
    }
    RawClient late(SocketPath());
    const std::optional<Answer> answer = late.Receive();
    ASSERT_TRUE(answer.has_value());
    EXPECT_EQ(answer->Kind, control_socket::AnswerBit);
    EXPECT_EQ(answer->Number, 0u);
    EXPECT_EQ(answer->Result, Result::TooMany);
    EXPECT_FALSE(late.Receive());
    clients[7].EndSending();
    EXPECT_EQ(clients[7].CountAnswers(), 0u);
    // The server hangs up a moment before it counts one less.
    std::optional<Answer> greeting;
    while (!greeting || greeting->Result != Result::Done)
    {
        RawClient next(SocketPath());
        next.Send(Kind::Hello, WordBytes(control_socket::Version));
        greeting = next.Receive();
    }
    EXPECT_EQ(clients[8].Control(IOCTL_START).Result, Result::Done);
}

TEST_F(ControlServerTest, StopEndsEveryConnection)
{
    RawClient idle = Connected();
    RawClient waiting = Connected();
    StartLogging(waiting);
    waiting.Ask(Kind::CreateMailslot);
    waiting.Send(Kind::WaitForEvent, WordBytes(control_socket::WaitForever));
    RawClient half = Connected();
    const Bytes frame = Frame(static_cast<std::uint32_t>(Kind::EndWait), 9, {});
    half.SendBytes(std::span(frame).first(10));
    RawClient deaf = Connected();
    deaf.SendBytes(Frame(static_cast<std::uint32_t>(Kind::DeviceControl), 2,
        Writer().Word(IOCTL_STOP).Word(control_socket::MostBufferBytes).Bytes()));
    server_->Stop();
    EXPECT_EQ(idle.CountAnswers(), 0u);
    EXPECT_EQ(waiting.CountAnswers(), 0u);
    EXPECT_EQ(half.CountAnswers(), 0u);
    EXPECT_FALSE(RawClient(SocketPath()).IsConnected());
    EXPECT_EQ(agent_.Object()->Handles.Count(), 0u);
    server_->Stop();
    EXPECT_EQ(machine_.UnloadDriver(), STATUS_SUCCESS);
    server_.reset();
    machine_.Shutdown();
    EXPECT_EQ(machine_.Leaks(), "");
}

TEST_F(ControlServerTest, AProcessThatExitedIsServedToTheEnd)
{
    RawClient client = Connected();
    StartLogging(client);
    OpenInVain();
    agent_.Exit();
    EXPECT_EQ(WordOf(client.Wait(0).Content), static_cast<std::uint32_t>(Woken::Signalled));
    EXPECT_EQ(client.Control(IOCTL_STOP_LOGGING).Result, Result::Done);
    known_ = -1;
    client.EndSending();
    EXPECT_EQ(client.CountAnswers(), 0u);
}
}
}
