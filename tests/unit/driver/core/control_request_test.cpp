// Every request of the control device: statuses, byte counts, what is printed, what changes.

#include "hosted/ex/pool.h"
#include "hosted/io/device_control.h"
#include "hosted/io/file.h"
#include "hosted/machine/control_device.h"
#include "hosted/ps/query_hooks.h"
#include "tests/unit/driver/core/request_fixture.h"

#include <atomic>
#include <chrono>
#include <latch>
#include <thread>

namespace request_test
{
namespace
{
class ControlRequest : public RequestTest
{
protected:
    std::string Key() const { return std::string(reinterpret_cast<const char*>(Global.CryptKey), Global.KeyLength); }
};

TEST_F(ControlRequest, KeyOfAWrongLengthIsRefused)
{
    for (ULONG length : {0u, 1u, 16u, 18u, 24u, 26u, 32u, 34u, 41u})
    {
        Computer.ClearDebugPrints();
        EXPECT_EQ(Send(IOCTL_SET_CRYPTKEY, std::string(length, 'k')), STATUS_INVALID_PARAMETER) << length;
        EXPECT_THAT(DebugPrints(), ElementsAre("Tarnveil - IOCTL_SET_CRYPTKEY " + std::to_string(length) + "\n"));
        EXPECT_EQ(Global.KeyLength, 0u);
    }
}

TEST_F(ControlRequest, Key128IsSetWithItsMask)
{
    EXPECT_EQ(Agent->SetCryptKey("0123456789abcdef", 0x5a), STATUS_SUCCESS);
    EXPECT_EQ(Key(), "0123456789abcdef");
    EXPECT_EQ(Global.XorByte, 0x5a);
    EXPECT_THAT(DebugPrints(), ElementsAre("Tarnveil - IOCTL_SET_CRYPTKEY 17\n"));
}

TEST_F(ControlRequest, Key192IsSetWithItsMask)
{
    EXPECT_EQ(Agent->SetCryptKey("0123456789abcdef01234567", 0x5b), STATUS_SUCCESS);
    EXPECT_EQ(Key(), "0123456789abcdef01234567");
    EXPECT_EQ(Global.XorByte, 0x5b);
}

TEST_F(ControlRequest, Key256IsSetWithItsMask)
{
    EXPECT_EQ(Agent->SetCryptKey("0123456789abcdef0123456789abcdef", 0x5c), STATUS_SUCCESS);
    EXPECT_EQ(Key(), "0123456789abcdef0123456789abcdef");
    EXPECT_EQ(Global.XorByte, 0x5c);
}

TEST_F(ControlRequest, SecondKeyIsReportedAsSuccessAndIgnored)
{
    ProgramEvent event = Agent->CreateEvent();
    EXPECT_EQ(Agent->StartLogging(event, 0xffffffff), STATUS_SUCCESS);
    Agent->DrainLog();
    EXPECT_EQ(Agent->SetCryptKey("0123456789abcdef", 1), STATUS_SUCCESS);
    Computer.ClearDebugPrints();
    EXPECT_EQ(Agent->SetCryptKey("ffffffffffffffffffffffffffffffff", 2), STATUS_SUCCESS);
    // The length is not even looked at.
    EXPECT_EQ(Send(IOCTL_SET_CRYPTKEY, "x"), STATUS_SUCCESS);
    EXPECT_EQ(Key(), "0123456789abcdef");
    EXPECT_EQ(Global.XorByte, 1);
    const std::vector<LogRecord> records = Agent->DrainLog();
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(records[0].Level, static_cast<ULONG>(TARNVEIL_LEVEL_REFUSED_KEY));
    EXPECT_EQ(records[0].ProcessId, Agent->ProcessId());
    EXPECT_EQ(records[0].Message, "IRP = DEV_CTRL IOCTL = SET_CRYPTKEY status = OVERRIDE_KEY");
    const std::vector<std::string> prints = DebugPrints();
    ASSERT_GE(prints.size(), 2u);
    EXPECT_EQ(prints[0], "Tarnveil - IOCTL_SET_CRYPTKEY 33\n");
    EXPECT_EQ(prints[1], "Tarnveil - Tried to override the crypt key.\n");
}

TEST_F(ControlRequest, StopKeepsTheKey)
{
    EXPECT_EQ(Agent->SetCryptKey("0123456789abcdef", 1), STATUS_SUCCESS);
    EXPECT_EQ(Agent->StopDriver(), STATUS_SUCCESS);
    EXPECT_EQ(Key(), "0123456789abcdef");
}

TEST_F(ControlRequest, AddNeedsExactlyFourBytesOfOutput)
{
    for (ULONG code : {IOCTL_ADD_PARENT_PROCESS, IOCTL_ADD_PROCESS, IOCTL_ADD_EXC_PROCESS})
    {
        for (ULONG size : {0u, 3u, 5u, 8u})
        {
            EXPECT_EQ(Send(code, Terminated(L"C:\\a.exe"), size), STATUS_INVALID_PARAMETER) << size;
        }
    }
    EXPECT_THAT(DebugPrints(), IsEmpty());
    // Nothing was added on the way.
    const UNICODE_STRING path = Counted(L"C:\\a.exe");
    ULONG id = 0;
    EXPECT_FALSE(FindSetting(ParentProcessNames, &path, &id));
    EXPECT_FALSE(FindSetting(ProcessNames, &path, &id));
    EXPECT_FALSE(FindSetting(ExclusionProcessNames, &path, &id));
}

TEST_F(ControlRequest, AddPrintsThePathAndItsId)
{
    const std::string parent = std::to_string(Agent->AddParentProcess(L"C:\\a.exe").Value);
    const std::string process = std::to_string(Agent->AddProcess(L"C:\\b.exe").Value);
    const std::string exclusion = std::to_string(Agent->AddExclusion(L"C:\\c.exe").Value);
    std::vector<std::string> requests;
    for (const std::string& text : DebugPrints())
    {
        if (text.starts_with("Tarnveil - IOCTL_"))
        {
            requests.push_back(text);
        }
    }
    EXPECT_THAT(requests, ElementsAre("Tarnveil - IOCTL_ADD_PARENT_PROCESS: 'C:\\a.exe', id(" + parent + ")\n",
                              "Tarnveil - IOCTL_ADD_PROCESS: 'C:\\b.exe', id(" + process + ")\n",
                              "Tarnveil - IOCTL_ADD_EXC_PROCESS: 'C:\\c.exe', id(" + exclusion + ")\n"));
}

TEST_F(ControlRequest, DeleteRemovesTheIdFromEveryList)
{
    const ULONG ids[] = {Agent->AddParentProcess(L"C:\\a.exe").Value, Agent->AddProcess(L"C:\\b.exe").Value,
        Agent->AddExclusion(L"C:\\c.exe").Value};
    const UNICODE_STRING paths[] = {Counted(L"C:\\a.exe"), Counted(L"C:\\b.exe"), Counted(L"C:\\c.exe")};
    const ProcessNameSettingList* lists[] = {&ParentProcessNames, &ProcessNames, &ExclusionProcessNames};
    for (ULONG i = 0; i < 3; ++i)
    {
        ULONG id = 0;
        EXPECT_TRUE(FindSetting(*lists[i], &paths[i], &id));
        EXPECT_EQ(id, ids[i]);
        Computer.ClearDebugPrints();
        EXPECT_EQ(Agent->DelProcess(id), STATUS_SUCCESS);
        EXPECT_EQ(DebugPrints().at(0), "Tarnveil - IOCTL_DEL_PROCESS: id(" + std::to_string(id) + ")\n");
        EXPECT_FALSE(FindSetting(*lists[i], &paths[i], &id));
    }
    // An id that nobody has is no failure.
    EXPECT_EQ(Agent->DelProcess(0x7fffffff), STATUS_SUCCESS);
}

TEST_F(ControlRequest, DeleteWithoutAnIdIsInvalid)
{
    EXPECT_EQ(Send(IOCTL_DEL_PROCESS), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(Send(IOCTL_DEL_PROCESS, "abc"), STATUS_INVALID_PARAMETER);
}

TEST_F(ControlRequest, StartAndStopMayComeAnyNumberOfTimes)
{
    for (int round = 0; round < 3; ++round)
    {
        Computer.ClearDebugPrints();
        EXPECT_EQ(Agent->StartDriver(), STATUS_SUCCESS);
        EXPECT_EQ(Agent->StartDriver(), STATUS_SUCCESS);
        EXPECT_EQ(Agent->StopDriver(), STATUS_SUCCESS);
        EXPECT_EQ(Agent->StopDriver(), STATUS_SUCCESS);
        // While the installer has written nothing, each start looks again.
        const char* const noProduct = "Failed to ZwOpenKey. Path = \\Registry\\Machine\\SOFTWARE\\WOW6432Node\\"
                                      "Orvane Works\\Hollowbay NTStatus = c0000034\n";
        EXPECT_THAT(DebugPrints(),
            ElementsAre("Tarnveil - IOCTL_START\n", "Tarnveil.sys: ", noProduct, "Tarnveil - IOCTL_START\n",
                "Tarnveil.sys: ", noProduct, "Tarnveil - IOCTL_STOP\n", "Tarnveil - IOCTL_STOP\n"));
        EXPECT_NE(Global.Filter, nullptr);
    }
}

TEST_F(ControlRequest, StopEmptiesTheListsAndTheCache)
{
    EXPECT_EQ(Agent->AddProcess(L"C:\\App.exe").Status, STATUS_SUCCESS);
    Program app = Computer.StartProcess(L"C:\\App.exe");
    EXPECT_TRUE(Agent->IsUnderSandbox(app.ProcessId()));
    const UNICODE_STRING key = Counted(L"C:\\PROGRA~1");
    EXPECT_EQ(CTInsertElement(&Global.ProcessCache, &key, &key, 0), STATUS_SUCCESS);
    EXPECT_EQ(Agent->StopDriver(), STATUS_SUCCESS);
    EXPECT_FALSE(Agent->IsUnderSandbox(app.ProcessId()));
    EXPECT_FALSE(Agent->IsExistUnderSandbox());
    EXPECT_EQ(CTLookupElement(&Global.ProcessCache, &key, nullptr, 0), STATUS_NOT_FOUND);
    const UNICODE_STRING path = Counted(L"C:\\App.exe");
    ULONG id = 0;
    EXPECT_FALSE(FindSetting(ProcessNames, &path, &id));
}

TEST_F(ControlRequest, StopTurnsEncryptionBackOn)
{
    EXPECT_EQ(Agent->StopDriver(), STATUS_SUCCESS);
    EXPECT_EQ(Agent->SetEncryption(0), STATUS_SUCCESS);
    EXPECT_EQ(Global.EncryptionEnabled, 0u);
    EXPECT_EQ(Agent->StopDriver(), STATUS_SUCCESS);
    EXPECT_EQ(Global.EncryptionEnabled, 1u);
}

TEST_F(ControlRequest, EncryptionIsStoredAsItCame)
{
    ProgramEvent event = Agent->CreateEvent();
    EXPECT_EQ(Agent->StartLogging(event, TARNVEIL_LEVEL_TRACE), STATUS_SUCCESS);
    Agent->DrainLog();
    Computer.ClearDebugPrints();
    EXPECT_EQ(Agent->SetEncryption(7), STATUS_SUCCESS);
    EXPECT_EQ(Global.EncryptionEnabled, 7u);
    EXPECT_EQ(Agent->SetEncryption(0), STATUS_SUCCESS);
    EXPECT_EQ(DebugPrints().at(0), "Tarnveil - IOCTL_SET_ENCRYPTION: Encryption = 7\n");
    const std::vector<LogRecord> records = Agent->DrainLog();
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(records[0].Level, static_cast<ULONG>(TARNVEIL_LEVEL_TRACE));
    EXPECT_EQ(records[0].Message, "IRP = DEV_CTRL IOCTL = ENCRYPT Encrypt = Enable");
    EXPECT_EQ(records[1].Message, "IRP = DEV_CTRL IOCTL = ENCRYPT Encrypt = Disable");
}

TEST_F(ControlRequest, EncryptionNeedsExactlyFourBytes)
{
    for (size_t length : {0u, 3u, 5u, 8u})
    {
        Computer.ClearDebugPrints();
        EXPECT_EQ(Send(IOCTL_SET_ENCRYPTION, std::string(length, '\0')), STATUS_INVALID_PARAMETER);
        EXPECT_THAT(DebugPrints(), ElementsAre("Tarnveil - IOCTL_SET_ENCRYPTION: STATUS_INVALID_PARAMETER\n"));
    }
    EXPECT_EQ(Global.EncryptionEnabled, 1u);
}

TEST_F(ControlRequest, StartLoggingNeedsExactlyTwelveBytes)
{
    for (size_t length : {0u, 4u, 11u, 13u, 16u})
    {
        Computer.ClearDebugPrints();
        EXPECT_EQ(Send(IOCTL_START_LOGGING, std::string(length, '\0')), STATUS_INVALID_PARAMETER);
        EXPECT_THAT(DebugPrints(), ElementsAre("Tarnveil - IOCTL_START_LOGGING: STATUS_INVALID_PARAMETER\n"));
    }
}

TEST_F(ControlRequest, StartLoggingPrintsHandleAndFlags)
{
    const HANDLE none = reinterpret_cast<HANDLE>(static_cast<ULONG_PTR>(0xabc0));
    EXPECT_FALSE(NT_SUCCESS(Agent->StartLogging(none, 0x4a)));
    EXPECT_EQ(DebugPrints().at(0), "Tarnveil - IOCTL_START_LOGGING: Handle = 000000000000ABC0 Flags = 0x0000004A\n");
    Computer.ClearDebugPrints();
    EXPECT_EQ(Agent->StopLogging(), STATUS_SUCCESS);
    EXPECT_EQ(DebugPrints().at(0), "Tarnveil - IOCTL_STOP_LOGGING\n");
}

TEST_F(ControlRequest, LogDataAloneReportsItsBytes)
{
    EXPECT_EQ(Send(IOCTL_GET_LOG_DATA, {}, 1095), STATUS_BUFFER_TOO_SMALL);
    EXPECT_EQ(Send(IOCTL_GET_LOG_DATA, {}, 1096), STATUS_NO_MORE_ENTRIES);
    ProgramEvent event = Agent->CreateEvent();
    EXPECT_EQ(Agent->StartLogging(event, TARNVEIL_LEVEL_TRACE), STATUS_SUCCESS);
    Agent->DrainLog();
    EXPECT_EQ(Agent->SetEncryption(1), STATUS_SUCCESS);
    EXPECT_EQ(Agent->SetEncryption(1), STATUS_SUCCESS);
    EXPECT_EQ(Send(IOCTL_GET_LOG_DATA, {}, 100), STATUS_BUFFER_TOO_SMALL);
    Computer.ClearDebugPrints();
    Global.VerboseTrace = TRUE;
    const ControlResult result = Agent->DeviceControl(IOCTL_GET_LOG_DATA, {}, 2000);
    Global.VerboseTrace = FALSE;
    EXPECT_EQ(result.Status, STATUS_SUCCESS);
    EXPECT_EQ(result.Information, 1096u);
    EXPECT_EQ(DebugPrints().at(0), "Tarnveil - IOCTL_GET_LOG_DATA\n");
}

TEST_F(ControlRequest, UnknownCodesAreInvalidAndSilent)
{
    for (ULONG code = 0x222028; code <= 0x22203c; code += 4)
    {
        EXPECT_EQ(Send(code, Word(1), 4), STATUS_INVALID_PARAMETER) << std::hex << code;
    }
    EXPECT_EQ(Send(0x22205c), STATUS_INVALID_PARAMETER);
    EXPECT_THAT(DebugPrints(), IsEmpty());
}

TEST_F(ControlRequest, MissingRequestIsPrintedAndSucceeds)
{
    EXPECT_EQ(DispatchDeviceControl(Global.ControlDevice, nullptr), STATUS_SUCCESS);
    EXPECT_THAT(DebugPrints(), ElementsAre("Tarnveil - Irp NULL\n"));
}

TEST_F(ControlRequest, OutputThatCannotBeWrittenChangesNothing)
{
    for (OutputBuffer kind : {OutputBuffer::ReadOnly, OutputBuffer::NoAccess, OutputBuffer::Kernel})
    {
        ControlOptions options;
        options.Kind = kind;
        options.Probe = false;
        const ControlResult result =
            Agent->DeviceControl(IOCTL_ADD_PROCESS, Terminated(L"C:\\a.exe"), sizeof(ULONG), options);
        EXPECT_EQ(result.Status, STATUS_ACCESS_VIOLATION);
    }
    const UNICODE_STRING path = Counted(L"C:\\a.exe");
    ULONG id = 0;
    EXPECT_FALSE(FindSetting(ProcessNames, &path, &id));
}

TEST_F(ControlRequest, UnloadWaitsForRequestsInTheDriver)
{
    std::latch inside(1);
    std::atomic<bool> goOn = false;
    SetSystemQueryHook(
        [&, asked = false](ULONG, ULONG) mutable -> std::optional<QueryAnswer>
        {
            if (!std::exchange(asked, true))
            {
                inside.count_down();
                goOn.wait(false);
            }
            return std::nullopt;
        });
    std::thread request([&] { EXPECT_EQ(Agent->AddProcess(L"C:\\App.exe").Status, STATUS_SUCCESS); });
    inside.wait();
    std::thread unload(
        [&]
        {
            EXPECT_EQ(Computer.UnloadDriver(), STATUS_SUCCESS);
            EXPECT_TRUE(goOn);
        });
    // Long enough for an unload that does not wait.
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    goOn = true;
    goOn.notify_all();
    request.join();
    unload.join();
    ResetQueryHooks();
    EXPECT_EQ(LivePoolAllocations(), 0u) << DescribeLivePool();
}

TEST_F(ControlRequest, AfterUnloadAHandleThatIsStillOpenGetsNothing)
{
    PFILE_OBJECT device = nullptr;
    ASSERT_EQ(OpenControlDevice(&device), STATUS_SUCCESS);
    EXPECT_EQ(Computer.UnloadDriver(), STATUS_SUCCESS);
    ULONG answer = 0x11223344;
    DeviceControlRequest request;
    request.Code = IOCTL_IS_EXIST_UNDER_SANDBOX;
    request.Output = &answer;
    request.OutputLength = sizeof(answer);
    request.Probe = false;
    IO_STATUS_BLOCK status{};
    EXPECT_EQ(DeviceControl(device, request, &status), STATUS_DELETE_PENDING);
    EXPECT_EQ(answer, 0x11223344u);
    CloseFile(device);
}
}
}
