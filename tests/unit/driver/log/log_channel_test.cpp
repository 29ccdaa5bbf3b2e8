// The queue of log records as an agent finds it.
#include "driver/log/log_channel.h"
#include "driver/names/process_name.h"
#include "hosted/ke/irql.h"
#include "hosted/ex/pool.h"
#include "tests/unit/driver/process/agent_fixture.h"

using namespace agent_test;

namespace
{
class LogChannelTest : public AgentTest
{
protected:
    NTSTATUS Write(ULONG level, ULONG number)
    {
        return WriteLogRecord(level, agent_.Id(), L"name", L"record %d", number);
    }

    // How the agent hears of its own registration.
    std::string Registered(const ProgramEvent& event, ULONG flags, NTSTATUS status = STATUS_SUCCESS)
    {
        return Text("IRP = DEV_CTRL IOCTL = START_LOG Handle = 0x%016llX Flags = 0x%08XL status = 0x%08XL",
            static_cast<unsigned long long>(reinterpret_cast<ULONG_PTR>(event.Handle())), flags,
            static_cast<ULONG>(status));
    }
};

TEST_F(LogChannelTest, AnotherInitializationIsRefused)
{
    EXPECT_EQ(InitializeLogChannel(), STATUS_UNSUCCESSFUL);
}

TEST_F(LogChannelTest, EverythingFailsBeforeInitialization)
{
    ASSERT_EQ(machine_.UnloadDriver(), STATUS_SUCCESS);
    const TARNVEIL_START_LOGGING input = {4, 0x40};
    EXPECT_EQ(StartLogging(&input), STATUS_UNSUCCESSFUL);
    EXPECT_EQ(StopLogging(), STATUS_UNSUCCESSFUL);
    EXPECT_EQ(Write(0x40, 1), STATUS_UNSUCCESSFUL);
    EXPECT_FALSE(IsLogLevelEnabled(0x40));
    ULONG length = 4321;
    EXPECT_EQ(GetLogData(nullptr, &length), STATUS_UNSUCCESSFUL);
    EXPECT_EQ(length, 4321u);
}

TEST_F(LogChannelTest, ARegistrationIsItsFirstRecord)
{
    EXPECT_THAT(PrintsOf([&] { EXPECT_EQ(agent_.StartLogging(event_, 0x40), STATUS_SUCCESS); }),
        ElementsAre(Text("Tarnveil - IOCTL_START_LOGGING: Handle = %016llX Flags = 0x00000040\n",
            static_cast<unsigned long long>(reinterpret_cast<ULONG_PTR>(event_.Handle())))));
    EXPECT_TRUE(event_.IsSet());
    EXPECT_THAT(
        agent_.DrainLog(), ElementsAre(LogRecord{0x40, agent_.ProcessId(), "agent.exe", Registered(event_, 0x40)}));
}

TEST_F(LogChannelTest, ARegistrationWithoutTheTraceLevelIsNotRecorded)
{
    EXPECT_EQ(agent_.StartLogging(event_, 0x02), STATUS_SUCCESS);
    EXPECT_EQ(GetLogRecordCount(), 0u);
    EXPECT_FALSE(event_.IsSet());
}

TEST_F(LogChannelTest, TheSameRegistrationAgainKeepsTheReference)
{
    ASSERT_EQ(agent_.StartLogging(event_, 0x40), STATUS_SUCCESS);
    // Referencing the handle would fail now.
    FailRoutine("ObReferenceObjectByHandle", 1, true);
    const TARNVEIL_START_LOGGING input = {reinterpret_cast<ULONG_PTR>(event_.Handle()), 0x40};
    EXPECT_EQ(agent_.As([&] { return StartLogging(&input); }), STATUS_SUCCESS);
    EXPECT_EQ(InjectedFailures(), 0u);
    ResetFailures();
    EXPECT_THAT(Messages(), ElementsAre(Registered(event_, 0x40), Registered(event_, 0x40)));
}

TEST_F(LogChannelTest, OtherFlagsReferenceTheHandleAgain)
{
    ASSERT_EQ(agent_.StartLogging(event_, 0x40), STATUS_SUCCESS);
    EXPECT_EQ(agent_.StartLogging(event_, 0x42), STATUS_SUCCESS);
    EXPECT_TRUE(IsLogLevelEnabled(0x02));
    EXPECT_THAT(Messages(), ElementsAre(Registered(event_, 0x40), Registered(event_, 0x42)));
    FailRoutine("ObReferenceObjectByHandle", 1, true);
    const TARNVEIL_START_LOGGING input = {reinterpret_cast<ULONG_PTR>(event_.Handle()), 0x44};
    EXPECT_FALSE(NT_SUCCESS(agent_.As([&] { return StartLogging(&input); })));
    EXPECT_EQ(InjectedFailures(), 1u);
    ResetFailures();
    EXPECT_TRUE(IsLogLevelEnabled(0x02)) << "the registration before";
    // A reference too many would be found when the machine goes.
    EXPECT_EQ(agent_.StopLogging(), STATUS_SUCCESS);
}

TEST_F(LogChannelTest, ARecordThatIsMadeWhileLoggingStopsIsNotQueued)
{
    Listen(0x40);
    SetSystemQueryHook(
        [](ULONG, ULONG) -> std::optional<QueryAnswer>
        {
            EXPECT_EQ(StopLogging(), STATUS_SUCCESS);
            return std::nullopt;
        });
    EXPECT_EQ(WriteLogRecord(0x40, agent_.Id(), nullptr, L"late"), STATUS_SUCCESS);
    SetSystemQueryHook({});
    EXPECT_EQ(GetLogRecordCount(), 0u);
    EXPECT_EQ(agent_.StartLogging(event_, 0x02), STATUS_SUCCESS);
    EXPECT_EQ(GetLogRecordCount(), 0u);
}

TEST_F(LogChannelTest, ARefusedHandleLeavesTheRegistrationBefore)
{
    Listen(0x40);
    const HANDLE bad = reinterpret_cast<HANDLE>(0x7ff0);
    EXPECT_THAT(PrintsOf([&] { EXPECT_EQ(agent_.StartLogging(bad, 0x02), STATUS_INVALID_HANDLE); }),
        ElementsAre("Tarnveil - IOCTL_START_LOGGING: Handle = 0000000000007FF0 Flags = 0x00000002\n",
            "[Logging] StartLogging : ObReferenceObjectByHandle failed: C0000008\n"));
    EXPECT_TRUE(event_.IsSet());
    EXPECT_TRUE(IsLogLevelEnabled(0x40));
    EXPECT_FALSE(IsLogLevelEnabled(0x02));
    EXPECT_THAT(Messages(), ElementsAre("IRP = DEV_CTRL IOCTL = START_LOG Handle = 0x0000000000007FF0 "
                                        "Flags = 0x00000002L status = 0xC0000008L"));
}

TEST_F(LogChannelTest, AHandleWithoutReadControlIsRefused)
{
    const ProgramEvent weak = agent_.CreateEvent(SynchronizationEvent, EVENT_MODIFY_STATE);
    EXPECT_EQ(agent_.StartLogging(weak, 0x40), STATUS_ACCESS_DENIED);
    EXPECT_FALSE(IsLogLevelEnabled(0x40));
}

TEST_F(LogChannelTest, AnInputOfAnotherLengthIsRefused)
{
    for (const size_t length : {0, 11, 13, 16})
    {
        EXPECT_THAT(PrintsOf(
                        [&]
                        {
                            EXPECT_EQ(agent_.DeviceControl(IOCTL_START_LOGGING, std::string(length, 0)).Status,
                                STATUS_INVALID_PARAMETER);
                        }),
            ElementsAre("Tarnveil - IOCTL_START_LOGGING: STATUS_INVALID_PARAMETER\n"));
    }
}

TEST_F(LogChannelTest, StopForgetsRecordsEventAndFlags)
{
    Listen();
    EXPECT_EQ(Write(0x40, 1), STATUS_SUCCESS);
    EXPECT_THAT(PrintsOf([&] { EXPECT_EQ(agent_.StopLogging(), STATUS_SUCCESS); }),
        ElementsAre("Tarnveil - IOCTL_STOP_LOGGING\n"));
    EXPECT_EQ(GetLogRecordCount(), 0u);
    event_.Clear();
    EXPECT_EQ(Write(0x40, 2), STATUS_SUCCESS);
    EXPECT_EQ(GetLogRecordCount(), 0u);
    EXPECT_FALSE(event_.IsSet());
    EXPECT_EQ(agent_.StopLogging(), STATUS_SUCCESS);
}

TEST_F(LogChannelTest, UnloadFreesRecordsAndTheEvent)
{
    Listen();
    EXPECT_EQ(Write(0x40, 1), STATUS_SUCCESS);
    EXPECT_EQ(machine_.UnloadDriver(), STATUS_SUCCESS);
}

TEST_F(LogChannelTest, EveryRecordSignalsTheEvent)
{
    Listen();
    EXPECT_EQ(Write(0x40, 1), STATUS_SUCCESS);
    EXPECT_TRUE(event_.IsSet());
    event_.Clear();
    EXPECT_EQ(Write(0x40, 2), STATUS_SUCCESS);
    EXPECT_TRUE(event_.IsSet());
}

TEST_F(LogChannelTest, OnlyEnabledLevelsAreQueued)
{
    Listen(0x0a);
    EXPECT_EQ(Write(0x02, 1), STATUS_SUCCESS);
    EXPECT_EQ(Write(0x04, 2), STATUS_SUCCESS);
    EXPECT_EQ(Write(0x08, 3), STATUS_SUCCESS);
    EXPECT_EQ(Write(0x40, 4), STATUS_SUCCESS);
    EXPECT_EQ(agent_.SetEncryption(1), STATUS_SUCCESS);
    EXPECT_THAT(agent_.DrainLog(), ElementsAre(LogRecord{0x02, agent_.ProcessId(), "name", "record 1"},
                                       LogRecord{0x08, agent_.ProcessId(), "name", "record 3"}));
}

TEST_F(LogChannelTest, ABufferOfOneByteTooLittleGetsNothing)
{
    Listen();
    EXPECT_EQ(Write(0x40, 1), STATUS_SUCCESS);
    for (const ULONG size : {0u, 1095u})
    {
        const ControlResult result = agent_.DeviceControl(IOCTL_GET_LOG_DATA, {}, size);
        EXPECT_EQ(result.Status, STATUS_BUFFER_TOO_SMALL);
        EXPECT_EQ(result.Information, 0u);
        EXPECT_EQ(result.Output, std::string(size, '\xEE'));
    }
    EXPECT_EQ(GetLogRecordCount(), 1u);
}

TEST_F(LogChannelTest, AnEmptyQueueHasNoMoreEntries)
{
    Listen();
    const ControlResult result = agent_.DeviceControl(IOCTL_GET_LOG_DATA, {}, 1096);
    EXPECT_EQ(result.Status, STATUS_NO_MORE_ENTRIES);
    EXPECT_EQ(result.Information, 0u);
    // The length is looked at first.
    EXPECT_EQ(agent_.DeviceControl(IOCTL_GET_LOG_DATA, {}, 1095).Status, STATUS_BUFFER_TOO_SMALL);
}

TEST_F(LogChannelTest, ThreeThousandBytesTakeTwoOfFiveRecords)
{
    Listen();
    for (ULONG i = 1; i <= 5; ++i)
    {
        EXPECT_EQ(Write(0x40, i), STATUS_SUCCESS);
    }
    const ControlResult result = agent_.DeviceControl(IOCTL_GET_LOG_DATA, {}, 3000);
    EXPECT_EQ(result.Status, STATUS_SUCCESS);
    EXPECT_EQ(result.Information, 2192u);
    EXPECT_EQ(result.Output.substr(2192), std::string(808, '\xEE'));
    const auto records = DecodeLogRecords(std::string_view(result.Output).substr(0, 2192));
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(records[0].Message, "record 1");
    EXPECT_EQ(records[1].Message, "record 2");
    EXPECT_THAT(Messages(), ElementsAre("record 3", "record 4", "record 5"));
}

TEST_F(LogChannelTest, ReadingStopsWhenTheQueueRunsEmpty)
{
    Listen();
    EXPECT_EQ(Write(0x40, 1), STATUS_SUCCESS);
    const LogAnswer answer = agent_.GetLogData(4);
    EXPECT_EQ(answer.Status, STATUS_SUCCESS);
    EXPECT_EQ(answer.Information, 1096u);
    EXPECT_EQ(answer.Records.size(), 1u);
}

TEST_F(LogChannelTest, AFullQueueLosesItsOldestRecords)
{
    Listen();
    for (ULONG i = 0; i < 1030; ++i)
    {
        ASSERT_EQ(Write(0x40, i), STATUS_SUCCESS);
    }
    EXPECT_EQ(GetLogRecordCount(), 1024u);
    const std::vector<std::string> messages = Messages();
    ASSERT_EQ(messages.size(), 1024u);
    EXPECT_EQ(messages.front(), "record 6");
    EXPECT_EQ(messages.back(), "record 1029");
}

TEST_F(LogChannelTest, AMessageIsCutAt511Characters)
{
    Listen();
    for (const size_t length : {510, 511, 512, 2000})
    {
        const WideString text(length, L'x');
        EXPECT_EQ(WriteLogRecord(0x40, agent_.Id(), L"name", L"%s", text.c_str()), STATUS_SUCCESS);
        EXPECT_THAT(Messages(), ElementsAre(std::string(std::min<size_t>(length, 511), 'x')));
    }
}

TEST_F(LogChannelTest, ARecordHasItsFieldsAtFixedPlaces)
{
    Listen();
    EXPECT_EQ(WriteLogRecord(0x40, reinterpret_cast<HANDLE>(0x100000004), L"n", L"m"), STATUS_SUCCESS);
    std::string expected(1096, '\0');
    expected[0] = 0x40;
    expected[4] = 4;
    expected[8] = 'n';
    expected[72] = 'm';
    EXPECT_EQ(agent_.DeviceControl(IOCTL_GET_LOG_DATA, {}, 1096).Output, expected);
}

TEST_F(LogChannelTest, ALongProcessNameKeepsItsEnds)
{
    Listen();
    const Program named = machine_.StartProcess(L"C:\\x\\abcdefghijklmnopqrstuvwxyz0123456.exe");
    EXPECT_EQ(WriteLogRecord(0x40, named.Id(), nullptr, L"m"), STATUS_SUCCESS);
    EXPECT_THAT(
        agent_.DrainLog(), ElementsAre(LogRecord{0x40, named.ProcessId(), "abcdefghijklm ... yz0123456.exe", "m"}));
}

TEST_F(LogChannelTest, ARecordOfAnUnknownProcessIsLost)
{
    Listen();
    EXPECT_EQ(WriteLogRecord(0x40, reinterpret_cast<HANDLE>(0x7ff0), nullptr, L"m"), STATUS_OBJECT_NAME_NOT_FOUND);
    EXPECT_EQ(GetLogRecordCount(), 0u);
    EXPECT_FALSE(event_.IsSet());
}

TEST_F(LogChannelTest, WithoutMemoryARecordIsLost)
{
    Listen();
    // The record, the process snapshot, the copy of the name.
    const std::vector<std::vector<std::string>> prints = {{},
        {"[DlExtFunc] QuerySystemInformation : resource allocation error\n"},
        {"[Logging] GetProcessName : resource allocation error\n"}};
    for (size_t i = 0; i < prints.size(); ++i)
    {
        machine_.ClearDebugPrints();
        FailRoutine("ExAllocatePoolWithTag", i + 1);
        EXPECT_EQ(WriteLogRecord(0x40, agent_.Id(), nullptr, L"m"), STATUS_INSUFFICIENT_RESOURCES);
        EXPECT_EQ(InjectedFailures(), 1u);
        ResetFailures();
        EXPECT_EQ(machine_.DebugPrints(), prints[i]);
        EXPECT_EQ(GetLogRecordCount(), 0u);
    }
}

TEST_F(LogChannelTest, ARecordTakes1112BytesOfPool)
{
    Listen();
    const SIZE_T before = LivePoolBytes();
    EXPECT_EQ(Write(0x40, 1), STATUS_SUCCESS);
    EXPECT_EQ(LivePoolBytes() - before, 1112u);
}

TEST_F(LogChannelTest, AbovePassiveLevelOnlyTheDebuggerHears)
{
    Listen(0x40);
    for (const KIRQL level : {APC_LEVEL, DISPATCH_LEVEL})
    {
        machine_.ClearDebugPrints();
        {
            const RaisedIrql raised(level);
            EXPECT_EQ(
                WriteLogRecord(0x02, reinterpret_cast<HANDLE>(1234), nullptr, L"%s = %d", L"a", 7), STATUS_SUCCESS);
        }
        EXPECT_THAT(machine_.DebugPrints(),
            ElementsAre(Text("[Logging][Crypt]\n          IRQL        : %d\n          Level       : 2\n          "
                             "ProcessId   : 1234\n          Format      : %%s = %%d\n",
                level)));
        EXPECT_EQ(GetLogRecordCount(), 0u);
    }
}

TEST_F(LogChannelTest, LevelsAreReadAtDispatchLevelWithoutTheLock)
{
    Listen(0x40);
    const RaisedIrql raised(DISPATCH_LEVEL);
    EXPECT_TRUE(IsLogLevelEnabled(0x40));
    EXPECT_TRUE(IsLogLevelEnabled(0x42));
    EXPECT_FALSE(IsLogLevelEnabled(0x02));
}

TEST_F(LogChannelTest, AProcessNameIsATerminatedCopy)
{
    PoolPointer<WCHAR> name;
    EXPECT_EQ(GetProcessName(&name, agent_.Id()), STATUS_SUCCESS);
    EXPECT_EQ(Narrow(name.Get()), "agent.exe");
    EXPECT_EQ(PoolAllocationSize(name.Get()), 20u);
    EXPECT_EQ(GetProcessName(&name, reinterpret_cast<HANDLE>(0x7ff0)), STATUS_OBJECT_NAME_NOT_FOUND);
    EXPECT_EQ(name.Get(), nullptr);
}

TEST_F(LogChannelTest, ReadingTheLogIsTracedOnDemand)
{
    Listen();
    EXPECT_THAT(PrintsOf([&] { agent_.GetLogData(1); }), IsEmpty());
    Global.VerboseTrace = TRUE;
    EXPECT_THAT(PrintsOf([&] { agent_.GetLogData(1); }), ElementsAre("Tarnveil - IOCTL_GET_LOG_DATA\n"));
}
}
