// What an agent's requests look like at the device, and what it gets back.
#include "tests/support/machine.h"
#include "tests/unit/hosted/machine/fake_driver.h"

#include <tarnveil/control.h>

#include <gmock/gmock.h>

#include <cstring>

using namespace hosted;
using testing::ElementsAre;
using testing::IsEmpty;

namespace
{
std::string Wide(WideView text)
{
    return std::string(reinterpret_cast<const char*>(text.data()), text.size() * sizeof(WCHAR)) +
           std::string(sizeof(WCHAR), '\0');
}

template <class Value>
std::string Raw(const Value& value)
{
    return std::string(reinterpret_cast<const char*>(&value), sizeof(value));
}

class ControlClientTest : public testing::Test
{
protected:
    ControlClientTest()
    {
        fake_driver::Reset();
        EXPECT_EQ(STATUS_SUCCESS, machine_.LoadDriver(fake_driver::Entry));
    }

    void ExpectLast(ULONG code, const std::string& input, ULONG outputLength)
    {
        ASSERT_FALSE(fake_driver::requests.empty());
        const fake_driver::Request& last = fake_driver::requests.back();
        EXPECT_EQ(code, last.Code);
        EXPECT_EQ(input, last.Input);
        EXPECT_EQ(outputLength, last.OutputLength);
        EXPECT_EQ(agent_.Id(), last.Process);
    }

    Machine machine_;
    Program agent_ = machine_.StartProcess(L"C:\\Agent\\agent.exe");
};

TEST_F(ControlClientTest, RequestsCarryTheirInputs)
{
    agent_.SetCryptKey(std::string(16, 'k'), 0x5A);
    ExpectLast(IOCTL_SET_CRYPTKEY, std::string(16, 'k') + "\x5A", 0);
    agent_.DelProcess(7);
    ExpectLast(IOCTL_DEL_PROCESS, Raw(7u), 0);
    agent_.DelFileProtection(8);
    ExpectLast(IOCTL_DEL_FILE_PROTECTION, Raw(8u), 0);
    agent_.StartDriver();
    ExpectLast(IOCTL_START, "", 0);
    agent_.StopDriver();
    ExpectLast(IOCTL_STOP, "", 0);
    agent_.StopLogging();
    ExpectLast(IOCTL_STOP_LOGGING, "", 0);
    agent_.SetEncryption(1);
    ExpectLast(IOCTL_SET_ENCRYPTION, Raw(1u), 0);
    agent_.OutputCurrentParam();
    ExpectLast(IOCTL_OUTPUT_CURRENT_PARAM, "", 0);
    const ProgramEvent event = agent_.CreateEvent();
    agent_.StartLogging(event, 0x4A);
    ExpectLast(IOCTL_START_LOGGING, Raw(event.Handle()) + Raw(0x4Au), 0);
}

TEST_F(ControlClientTest, SettingsAnswerTheirId)
{
    fake_driver::behaviour.Direct = Raw(42u);
    EXPECT_EQ(Added(42), agent_.AddProcess(L"C:\\Apps\\*.exe"));
    ExpectLast(IOCTL_ADD_PROCESS, Wide(L"C:\\Apps\\*.exe"), 4);
    EXPECT_EQ(Added(42), agent_.AddParentProcess(L"C:\\a.exe"));
    ExpectLast(IOCTL_ADD_PARENT_PROCESS, Wide(L"C:\\a.exe"), 4);
    EXPECT_EQ(Added(42), agent_.AddExclusion(L"C:\\b.exe"));
    ExpectLast(IOCTL_ADD_EXC_PROCESS, Wide(L"C:\\b.exe"), 4);
    EXPECT_EQ(Added(42), agent_.AddFileProtection(100, L"C:\\c.txt"));
    ExpectLast(IOCTL_ADD_FILE_PROTECTION, Raw(100u) + Wide(L"C:\\c.txt"), 4);
    EXPECT_NE(Added(41), agent_.AddProcess(L"C:\\d.exe"));
}

TEST_F(ControlClientTest, QuestionsAreAnswered)
{
    fake_driver::behaviour.Direct = Raw(1u);
    EXPECT_TRUE(agent_.IsUnderSandbox(100));
    ExpectLast(IOCTL_IS_UNDER_SANDBOX, Raw(100u), 4);
    EXPECT_TRUE(agent_.IsExistUnderSandbox());
    ExpectLast(IOCTL_IS_EXIST_UNDER_SANDBOX, "", 4);
    fake_driver::behaviour.Direct = Raw(0u);
    EXPECT_FALSE(agent_.IsUnderSandbox(100));
    fake_driver::behaviour.Direct.clear();
    fake_driver::behaviour.Answer = STATUS_INVALID_PARAMETER;
    EXPECT_FALSE(agent_.IsUnderSandbox(100));
    EXPECT_EQ((ControlAnswer{STATUS_INVALID_PARAMETER, 0xEEEEEEEE}), agent_.IsUnderSandbox(100));
}

TEST_F(ControlClientTest, PidListsAreTakenApart)
{
    fake_driver::behaviour.Direct = Raw(2u) + Raw(104u) + Raw(108u);
    const PidListAnswer list = agent_.PidList();
    EXPECT_EQ(STATUS_SUCCESS, list.Status);
    EXPECT_EQ(2u, list.Count);
    EXPECT_THAT(list.Ids, ElementsAre(104u, 108u));
    fake_driver::behaviour.Direct = Raw(3u);
    fake_driver::behaviour.Answer = STATUS_BUFFER_TOO_SMALL;
    const PidListAnswer tooSmall = agent_.PidList(0);
    ExpectLast(IOCTL_GET_PID_LIST_UNDER_SANDBOX, "", 4);
    EXPECT_EQ(STATUS_BUFFER_TOO_SMALL, tooSmall.Status);
    EXPECT_EQ(3u, tooSmall.Count);
    EXPECT_THAT(tooSmall.Ids, IsEmpty());
}

TEST_F(ControlClientTest, LogRecordsAreDecoded)
{
    TARNVEIL_LOG_RECORD record{};
    record.Level = 0x40;
    record.ProcessId = 500;
    record.ProcessName[0] = 'a';
    record.ProcessName[1] = 0x00E9;
    std::fill(std::begin(record.Message), std::end(record.Message), 'm');
    fake_driver::behaviour.Buffered = Raw(record) + Raw(record);
    const LogAnswer answer = agent_.GetLogData(3);
    ExpectLast(IOCTL_GET_LOG_DATA, "", 3 * TARNVEIL_LOG_RECORD_BYTES);
    EXPECT_EQ(2u * TARNVEIL_LOG_RECORD_BYTES, answer.Information);
    const LogRecord expected{0x40, 500, "a\xC3\xA9", std::string(512, 'm')};
    EXPECT_THAT(answer.Records, ElementsAre(expected, expected));
    fake_driver::behaviour.Buffered.clear();
    fake_driver::behaviour.Answer = STATUS_NO_MORE_ENTRIES;
    EXPECT_THAT(agent_.DrainLog(), IsEmpty());
}

TEST_F(ControlClientTest, TheBufferShowsWhatWasWrittenDespiteTheCount)
{
    fake_driver::behaviour.Direct = "xy";
    const ControlResult result = agent_.DeviceControl(IOCTL_START, "in", 4, {.Fill = '.'});
    EXPECT_EQ(STATUS_SUCCESS, result.Status);
    EXPECT_EQ(0u, result.Information);
    EXPECT_EQ("xy..", result.Output);
}

TEST_F(ControlClientTest, BadBuffersFailBeforeTheDriver)
{
    for (const OutputBuffer kind : {OutputBuffer::ReadOnly, OutputBuffer::NoAccess, OutputBuffer::Kernel})
    {
        EXPECT_EQ(STATUS_ACCESS_VIOLATION, agent_.DeviceControl(IOCTL_START, {}, 4, {.Kind = kind}).Status);
    }
    EXPECT_EQ(STATUS_ACCESS_VIOLATION, agent_.DeviceControl(IOCTL_START, {}, 8, {.Existing = 4}).Status);
    EXPECT_THAT(fake_driver::requests, IsEmpty());
}

TEST_F(ControlClientTest, BadBuffersReachTheDriverWhenNobodyLooks)
{
    fake_driver::behaviour.Direct = Raw(1u);
    for (const OutputBuffer kind : {OutputBuffer::ReadOnly, OutputBuffer::NoAccess})
    {
        EXPECT_EQ(
            STATUS_ACCESS_VIOLATION, agent_.DeviceControl(IOCTL_START, {}, 4, {.Kind = kind, .Probe = false}).Status);
    }
    EXPECT_EQ(
        STATUS_ACCESS_VIOLATION, agent_.DeviceControl(IOCTL_START, {}, 4, {.Kind = OutputBuffer::LostMidway}).Status);
    EXPECT_EQ(
        STATUS_ACCESS_VIOLATION, agent_.DeviceControl(IOCTL_START, {}, 4, {.Existing = 2, .Probe = false}).Status);
    EXPECT_EQ(STATUS_ACCESS_VIOLATION,
        agent_.DeviceControl(IOCTL_START, {}, 4, {.Kind = OutputBuffer::Null, .Probe = false}).Status);
    EXPECT_EQ(5u, fake_driver::requests.size());
    EXPECT_EQ(STATUS_SUCCESS, agent_.DeviceControl(IOCTL_START, {}, 4, {.Kind = OutputBuffer::Exact}).Status);
}

TEST_F(ControlClientTest, WritingPastTheBufferIsCaught)
{
    fake_driver::behaviour.Direct = "12345";
    EXPECT_DEATH(agent_.DeviceControl(IOCTL_START, {}, 4), "USER_BUFFER_OVERRUN");
    EXPECT_EQ(STATUS_ACCESS_VIOLATION, agent_.DeviceControl(IOCTL_START, {}, 4, {.Kind = OutputBuffer::Exact}).Status);
}

TEST_F(ControlClientTest, WithoutADriverTheOpenFails)
{
    machine_.UnloadDriver();
    EXPECT_EQ(STATUS_OBJECT_NAME_NOT_FOUND, agent_.StartDriver());
}
}
