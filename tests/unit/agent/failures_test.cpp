// What the program makes of a driver that refuses, is not there, or cannot be talked to.
#include "tests/unit/agent/tarnctl_fixture.h"
#include "tests/support/temporary_folder.h"

#include <cstring>

namespace tarnctl_test
{
namespace
{
using Arguments = std::vector<std::string>;
using Handler = std::function<tarnctl::Reply(std::uint32_t code, std::span<std::uint8_t> output)>;

// Answers as it is told; remembers the requests.
class FakeTransport : public tarnctl::Transport
{
public:
    FakeTransport(Handler handler, std::vector<std::uint32_t>& codes) : handler_(std::move(handler)), codes_(codes) {}

    tarnctl::Reply Send(std::uint32_t code, std::span<const std::uint8_t>, std::span<std::uint8_t> output) override
    {
        codes_.push_back(code);
        return handler_(code, output);
    }
    std::uint64_t CreateLogEvent() override { return 8; }
    tarnctl::Wake WaitForLogEvent(std::optional<std::chrono::milliseconds>) override
    {
        return tarnctl::Wake::Interrupted;
    }
    std::unique_ptr<tarnctl::Mailslot> CreateDebugMailslot() override
    {
        class Empty : public tarnctl::Mailslot
        {
            std::optional<std::u16string> Read() override { return std::nullopt; }
        };
        return std::make_unique<Empty>();
    }

private:
    Handler handler_;
    std::vector<std::uint32_t>& codes_;
};

class TarnctlFailures : public testing::Test
{
protected:
    void SetUp() override { folder_.Put("key", std::string(17, 'k')); }

    Outcome RunFake(Handler handler, const Arguments& arguments)
    {
        codes_.clear();
        return RunWith([&] { return std::make_unique<FakeTransport>(handler, codes_); }, arguments);
    }

    // Every command that talks to the driver, with the request that it makes first.
    std::vector<std::pair<const char*, Arguments>> Commands()
    {
        return {
            {"IOCTL_SET_CRYPTKEY", {"key", "set", "--from-file", folder_.Path("key")}},
            {"IOCTL_ADD_PROCESS", {"process", "add", "C:\\a.exe"}},
            {"IOCTL_DEL_PROCESS", {"process", "remove", "1"}},
            {"IOCTL_ADD_PARENT_PROCESS", {"parent", "add", "C:\\a.exe"}},
            {"IOCTL_DEL_PROCESS", {"parent", "remove", "1"}},
            {"IOCTL_ADD_EXC_PROCESS", {"exclude", "add", "C:\\a.exe"}},
            {"IOCTL_DEL_PROCESS", {"exclude", "remove", "1"}},
            {"IOCTL_START", {"start"}},
            {"IOCTL_STOP", {"stop"}},
            {"IOCTL_START_LOGGING", {"log", "follow"}},
            {"IOCTL_STOP_LOGGING", {"log", "stop"}},
            {"IOCTL_IS_UNDER_SANDBOX", {"under-sandbox", "4"}},
            {"IOCTL_GET_PID_LIST_UNDER_SANDBOX", {"pids"}},
            {"IOCTL_IS_EXIST_UNDER_SANDBOX", {"status"}},
            {"IOCTL_SET_ENCRYPTION", {"encryption", "on"}},
            {"IOCTL_ADD_FILE_PROTECTION", {"protect", "add", "4", "C:\\a"}},
            {"IOCTL_DEL_FILE_PROTECTION", {"protect", "remove", "1"}},
            {"IOCTL_OUTPUT_CURRENT_PARAM", {"dump"}},
        };
    }

    TemporaryFolder folder_;
    std::vector<std::uint32_t> codes_;
};

TEST_F(TarnctlFailures, ARefusalIsNamedByRequestStatusAndNumber)
{
    for (const auto& [request, arguments] : Commands())
    {
        const Outcome outcome =
            RunFake([](std::uint32_t, std::span<std::uint8_t>) { return tarnctl::Reply{0xC000009A, 0}; }, arguments);
        EXPECT_EQ(outcome.Exit, 1) << request;
        EXPECT_EQ(outcome.Output, "");
        EXPECT_EQ(outcome.Error,
            "tarnctl: " + std::string(request) + " was refused: STATUS_INSUFFICIENT_RESOURCES (0xC000009A)\n");
        EXPECT_EQ(codes_.size(), 1u) << request;
    }
}

TEST_F(TarnctlFailures, AStatusWithoutANameKeepsItsNumber)
{
    const Outcome outcome = RunFake(
        [](std::uint32_t, std::span<std::uint8_t>) { return tarnctl::Reply{0xC0ABCDEF, 0}; }, {"start", "--json"});
    EXPECT_EQ(outcome.Exit, 1);
    EXPECT_EQ(outcome.Error, "tarnctl: IOCTL_START was refused: 0xC0ABCDEF\n");
    EXPECT_EQ(outcome.Output, "{\"error\":{\"request\":\"IOCTL_START\",\"status\":\"\",\"code\":\"0xC0ABCDEF\","
                              "\"message\":\"IOCTL_START was refused: 0xC0ABCDEF\",\"exit\":1}}\n");
}

TEST_F(TarnctlFailures, AWarningIsARefusalToo)
{
    const Outcome outcome =
        RunFake([](std::uint32_t, std::span<std::uint8_t>) { return tarnctl::Reply{0x80000005, 0}; }, {"start"});
    EXPECT_EQ(outcome.Exit, 1);
    EXPECT_THAT(outcome.Error, HasSubstr("STATUS_BUFFER_OVERFLOW (0x80000005)"));
}

TEST_F(TarnctlFailures, WithoutADriverEveryCommandSaysSo)
{
    for (const auto& [request, arguments] : Commands())
    {
        const Outcome text = RunWith(NoWay, arguments);
        EXPECT_EQ(text.Exit, 3) << request;
        EXPECT_EQ(text.Output, "");
        EXPECT_EQ(text.Error, "tarnctl: driver not reachable: none here\n");
        Arguments withJson = arguments;
        withJson.emplace_back("--json");
        const Outcome json = RunWith(NoWay, withJson);
        EXPECT_EQ(json.Exit, 3) << request;
        EXPECT_EQ(json.Output, "{\"error\":{\"message\":\"driver not reachable: none here\",\"exit\":3}}\n");
    }
}

TEST_F(TarnctlFailures, AnUnloadedDriverIsNotReachable)
{
    Machine machine;
    const Program program = machine.StartProcess(L"C:\\Agent\\tarnctl.exe");
    const tarnctl::Connect connect = [&] { return ConnectInMachine(program); };
    EXPECT_EQ(RunWith(connect, {"status"}).Exit, 3);
    ASSERT_EQ(machine.LoadDriver(Image::Native), STATUS_SUCCESS);
    EXPECT_EQ(RunWith(connect, {"status"}).Exit, 0);
    ASSERT_EQ(machine.UnloadDriver(), STATUS_SUCCESS);
    EXPECT_EQ(RunWith(connect, {"status"}).Exit, 3);
}

TEST_F(TarnctlFailures, AListThatNeverFitsEnds)
{
    const Outcome outcome = RunFake(
        [](std::uint32_t, std::span<std::uint8_t> output)
        {
            const auto count = static_cast<std::uint32_t>(output.size() / 4 + 10);
            std::memcpy(output.data(), &count, sizeof(count));
            return tarnctl::Reply{0xC0000023, 0};
        },
        {"pids"});
    EXPECT_EQ(outcome.Exit, 1);
    EXPECT_THAT(outcome.Error, HasSubstr("STATUS_BUFFER_TOO_SMALL (0xC0000023)"));
    EXPECT_EQ(codes_.size(), 16u);
}

TEST_F(TarnctlFailures, ACountBeyondTheBufferIsNotBelieved)
{
    const Outcome outcome = RunFake(
        [](std::uint32_t, std::span<std::uint8_t> output)
        {
            std::ranges::fill(output, std::uint8_t{0xFF});
            return tarnctl::Reply{0, 0};
        },
        {"pids"});
    EXPECT_EQ(outcome.Exit, 0);
    EXPECT_EQ(std::ranges::count(outcome.Output, '\n'), 64);
}

TEST_F(TarnctlFailures, ByteCountsOfTheLogAreNotBelieved)
{
    const Outcome outcome = RunFake(
        [answered = 0](std::uint32_t code, std::span<std::uint8_t> output) mutable
        {
            if (code != IOCTL_GET_LOG_DATA)
            {
                return tarnctl::Reply{0, 0};
            }
            if (answered++ > 0)
            {
                return tarnctl::Reply{0x8000001A, 0};
            }
            std::ranges::fill(output, std::uint8_t{'A'});
            return tarnctl::Reply{0, 0xFFFFFFFF};
        },
        {"log", "follow", "--json"});
    EXPECT_EQ(outcome.Exit, 0);
    EXPECT_EQ(std::ranges::count(outcome.Output, '\n'), 64);
}

TEST_F(TarnctlFailures, AFollowThatFailsEndsTheLogging)
{
    const Outcome outcome = RunFake([](std::uint32_t code, std::span<std::uint8_t>)
        { return tarnctl::Reply{code == IOCTL_GET_LOG_DATA ? 0xC000000D : 0u, 0}; }, {"log", "follow"});
    EXPECT_EQ(outcome.Exit, 1);
    EXPECT_THAT(outcome.Error, HasSubstr("IOCTL_GET_LOG_DATA was refused: STATUS_INVALID_PARAMETER"));
    EXPECT_THAT(
        codes_, testing::ElementsAre(IOCTL_START_LOGGING, IOCTL_START_LOGGING, IOCTL_GET_LOG_DATA, IOCTL_STOP_LOGGING));
}

TEST_F(TarnctlFailures, OutputThatNobodyTakesIsTrouble)
{
    std::ostringstream output;
    std::ostringstream error;
    output.setstate(std::ios::badbit);
    const tarnctl::Connect connect = [&]
    {
        return std::make_unique<FakeTransport>(
            [](std::uint32_t, std::span<std::uint8_t>) { return tarnctl::Reply{}; }, codes_);
    };
    EXPECT_EQ(tarnctl::Run({"start"}, connect, output, error), 4);
    EXPECT_EQ(error.str(), "tarnctl: the output cannot be written\n");
}
}
}
