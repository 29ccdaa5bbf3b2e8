// Many programs at once at the control socket.
#include "tests/unit/live/control/control_fixture.h"

#include <thread>

namespace control_test
{
namespace
{
class ControlThreadsTest : public ControlTest
{
protected:
    // Each on a thread of its own, all at once.
    void RunAll(int count, const std::function<void(int)>& body)
    {
        std::vector<std::thread> threads;
        for (int i = 0; i < count; ++i)
        {
            threads.emplace_back([&body, i] { body(i); });
        }
        for (std::thread& thread : threads)
        {
            thread.join();
        }
    }
};

TEST_F(ControlThreadsTest, EveryProgramGetsItsOwnAnswers)
{
    RunAll(12,
        [this](int which)
        {
            RawClient client = Connected();
            const std::u16string path =
                u"C:\\Apps\\" + std::u16string(1, static_cast<char16_t>(u'a' + which)) + u".exe";
            const Answer first = client.Control(IOCTL_ADD_PROCESS, 4, PathBytes(path));
            const std::uint32_t id = WordOf(first.Content, 2);
            for (int i = 0; i < 30; ++i)
            {
                // A path that is there answers its id again.
                EXPECT_EQ(WordOf(client.Control(IOCTL_ADD_PROCESS, 4, PathBytes(path)).Content, 2), id);
            }
            EXPECT_EQ(WordOf(client.Control(IOCTL_DEL_PROCESS, 0, WordBytes(id)).Content),
                static_cast<std::uint32_t>(STATUS_SUCCESS));
        });
    EXPECT_EQ(agent_.PidList().Count, 0u);
}

TEST_F(ControlThreadsTest, ProgramsComeGoWaitAndBreakOff)
{
    std::atomic<bool> done{false};
    std::thread opener(
        [this, &done]
        {
            while (!done)
            {
                OpenInVain();
            }
        });
    RunAll(8,
        [this](int which)
        {
            for (int i = 0; i < 25; ++i)
            {
                RawClient client = Connected();
                StartLogging(client, TARNVEIL_LEVEL_DENIED_OPEN | static_cast<std::uint32_t>(which) << 8);
                client.Send(Kind::WaitForEvent, WordBytes(which % 2 == 0 ? 1 : control_socket::WaitForever));
                if (i % 3 == 0)
                {
                    client.Close();
                    continue;
                }
                client.Send(Kind::EndWait);
                EXPECT_TRUE(client.Receive().has_value());
                EXPECT_EQ(client.Receive().value().Result, Result::Done);
                client.Ask(Kind::CreateMailslot);
                client.Control(IOCTL_OUTPUT_CURRENT_PARAM);
                client.Ask(Kind::ReadMailslot);
            }
        });
    done = true;
    opener.join();
    ExpectServing();
}

TEST_F(ControlThreadsTest, StopAmidRequests)
{
    std::atomic<int> answered{0};
    std::thread stopper(
        [this, &answered]
        {
            while (answered < 100)
            {
                std::this_thread::yield();
            }
            server_->Stop();
        });
    RunAll(6,
        [this, &answered](int)
        {
            RawClient client(SocketPath());
            client.Send(Kind::Hello, WordBytes(control_socket::Version));
            while (client.Receive())
            {
                ++answered;
                client.Send(Kind::DeviceControl, Writer().Word(IOCTL_IS_EXIST_UNDER_SANDBOX).Word(4).Bytes());
            }
        });
    stopper.join();
    EXPECT_GE(answered, 100);
    EXPECT_EQ(machine_.UnloadDriver(), STATUS_SUCCESS);
}
}
}
