// The queue of log records at its borders: several threads at once, levels at which its lock cannot be taken.
#include "driver/log/log_channel.h"
#include "hosted/ke/irql.h"
#include "tests/unit/driver/process/agent_fixture.h"

#include <thread>

using namespace agent_test;

namespace
{
using LogThreadsTest = AgentTest;

TEST_F(LogThreadsTest, RecordsOfEachWriterComeWholeAndInTheirOrder)
{
    constexpr unsigned Writers = 3;
    constexpr unsigned Each = 200; // together fewer than the queue holds
    Listen(0x40);
    std::vector<std::thread> threads;
    for (unsigned writer = 0; writer < Writers; ++writer)
    {
        threads.emplace_back(
            [this, writer]
            {
                for (unsigned i = 0; i < Each; ++i)
                {
                    EXPECT_EQ(WriteLogRecord(0x40, agent_.Id(), L"n", L"%d %d", writer, i), STATUS_SUCCESS);
                }
            });
    }
    std::vector<unsigned> next(Writers);
    for (unsigned count = 0; count < Writers * Each;)
    {
        EXPECT_TRUE(event_.Wait());
        for (const LogRecord& record : agent_.DrainLog())
        {
            unsigned writer = Writers;
            unsigned number = 0;
            ASSERT_EQ(std::sscanf(record.Message.c_str(), "%u %u", &writer, &number), 2) << record.Message;
            ASSERT_LT(writer, Writers);
            EXPECT_EQ(number, next[writer]++);
            ++count;
        }
    }
    for (std::thread& thread : threads)
    {
        thread.join();
    }
    EXPECT_EQ(GetLogRecordCount(), 0u);
}

TEST_F(LogThreadsTest, RegistrationsAndStopsLeaveNoReferenceWhileRecordsAreWritten)
{
    const ProgramEvent second = agent_.CreateEvent();
    std::atomic<bool> done = false;
    std::thread writer(
        [&]
        {
            while (!done)
            {
                EXPECT_EQ(WriteLogRecord(0x40, agent_.Id(), L"n", L"m"), STATUS_SUCCESS);
            }
        });
    const auto agent = [&](const ProgramEvent& event)
    {
        for (ULONG i = 0; i < 100; ++i)
        {
            EXPECT_EQ(agent_.StartLogging(event, 0x40 | (i & 2)), STATUS_SUCCESS);
            if (i % 5 == 0)
            {
                EXPECT_EQ(agent_.StopLogging(), STATUS_SUCCESS);
            }
        }
    };
    std::thread other([&] { agent(second); });
    agent(event_);
    other.join();
    done = true;
    writer.join();
    // References that were not given back are found when the machine goes.
    EXPECT_EQ(agent_.StopLogging(), STATUS_SUCCESS);
    EXPECT_EQ(GetLogRecordCount(), 0u);
    EXPECT_FALSE(IsLogLevelEnabled(0x42));
}

TEST_F(LogThreadsTest, AFullQueueStaysFullUnderSeveralWriters)
{
    Listen(0x40);
    std::vector<std::thread> threads;
    for (unsigned writer = 0; writer < 2; ++writer)
    {
        threads.emplace_back(
            [this]
            {
                for (unsigned i = 0; i < 600; ++i)
                {
                    EXPECT_EQ(WriteLogRecord(0x40, agent_.Id(), L"n", L"m"), STATUS_SUCCESS);
                    EXPECT_LE(GetLogRecordCount(), 1024u);
                }
            });
    }
    for (std::thread& thread : threads)
    {
        thread.join();
    }
    EXPECT_EQ(GetLogRecordCount(), 1024u);
}

TEST_F(LogThreadsTest, RecordsAreMovedAtDispatchLevelWithoutTheLock)
{
    Listen(0x40);
    EXPECT_EQ(WriteLogRecord(0x40, agent_.Id(), L"n", L"m"), STATUS_SUCCESS);
    TARNVEIL_LOG_RECORD record{};
    ULONG length = sizeof(record);
    {
        const RaisedIrql raised(DISPATCH_LEVEL);
        EXPECT_EQ(GetLogData(&record, &length), STATUS_SUCCESS);
    }
    EXPECT_EQ(length, sizeof(record));
    EXPECT_EQ(record.Message[0], L'm');
    EXPECT_EQ(GetLogRecordCount(), 0u);
}

// Equal to what an idle channel holds, so it counts as a repetition: nothing is referenced and nothing is queued.
TEST_F(LogThreadsTest, NoHandleAndNoFlagsRegisterNothing)
{
    const TARNVEIL_START_LOGGING nothing = {};
    EXPECT_EQ(agent_.As([&] { return StartLogging(&nothing); }), STATUS_SUCCESS);
    EXPECT_FALSE(IsLogLevelEnabled(0xffffffff));
    EXPECT_EQ(WriteLogRecord(0x40, agent_.Id(), L"n", L"m"), STATUS_SUCCESS);
    EXPECT_EQ(GetLogRecordCount(), 0u);
}
}
